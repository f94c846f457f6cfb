// The LinkService page's copy button: the link-scheme URL onto the clipboard, or selected for the user to
// copy where the browser does not allow it.
const field = document.getElementById('scheme-url');
const copy = document.getElementById('copy');
const status = document.getElementById('copy-status');

if (field && copy) {
  field.addEventListener('focus', () => field.select());
  copy.addEventListener('click', async () => {
    try {
      await navigator.clipboard.writeText(field.value);
      status.textContent = 'Copied.';
    } catch {
      field.focus();
      status.textContent = 'Selected: copy it with Ctrl+C.';
    }
  });
}
