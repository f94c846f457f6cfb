// Thumbnails load only as their items scroll into view, a few at a time: each one is a request held open
// at the relay until the computer answers, and the browser has few connections to spare.

const CONCURRENT = 5;
const SIZE = 256;

function thumbPath(item) {
  const stamp = Math.trunc(Number(item.mod_date) || 0);
  return `${item.path}.${stamp}.${SIZE}.${SIZE}.jpg`;
}

export class ThumbnailLoader {
  constructor(computer) {
    this.computer = computer;
    this.cache = new Map(); // thumb path -> object URL, or null when the computer had no picture
    this.waiting = [];
    this.running = 0;
    this.cancel = new AbortController();
    this.observer = new IntersectionObserver((entries) => this.#seen(entries), { rootMargin: '200px' });
  }

  // Forget what was waiting for the previous page and give up on what was asked for it, so the new page's
  // requests get the connections; pictures already made stay cached.
  reset() {
    this.observer.disconnect();
    this.waiting = [];
    this.cancel.abort();
    this.cancel = new AbortController();
  }

  watch(img, item) {
    const key = thumbPath(item);
    img.dataset.thumb = key;
    if (this.cache.has(key)) {
      this.#show(img, this.cache.get(key));
      return;
    }
    this.observer.observe(img);
  }

  #seen(entries) {
    for (const entry of entries) {
      if (!entry.isIntersecting) continue;
      this.observer.unobserve(entry.target);
      this.waiting.push(entry.target);
    }
    this.#pump();
  }

  #pump() {
    while (this.running < CONCURRENT && this.waiting.length) {
      const img = this.waiting.shift();
      if (!img.isConnected) continue;
      this.running++;
      this.#load(img).finally(() => {
        this.running--;
        this.#pump();
      });
    }
  }

  async #load(img) {
    const key = img.dataset.thumb;
    if (!this.cache.has(key)) {
      try {
        const { image } = await this.computer.ask({ request_type: 'thumb', path: key }, { signal: this.cancel.signal });
        this.cache.set(key, image ? URL.createObjectURL(new Blob([image], { type: 'image/jpeg' })) : null);
      } catch (error) {
        if (error.code === 'cancelled') return;
        img.title = error.message;
        img.classList.add('failed');
        return;
      }
    }
    this.#show(img, this.cache.get(key));
  }

  #show(img, url) {
    if (url) img.src = url;
    img.classList.add('loaded');
  }
}
