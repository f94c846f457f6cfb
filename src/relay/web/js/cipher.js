// The proofs the agent checks, made in the browser so the password never leaves it. The key string is
// "<computer id>___<password>"; its SHA-256 in lower-case hex signs plain requests, and AES-256-CBC under
// it (zero IV, PKCS#7 padding, ciphertext only) seals envelopes and the agent's encrypted answers.

const ALPHABET = 'ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_';
const ZERO_IV = new Uint8Array(16);
const utf8 = new TextEncoder();

// URL-safe base64 with "=" padding kept, as the agent writes and reads it.
export function base64UrlEncode(bytes) {
  let text = '';
  for (let i = 0; i < bytes.length; i += 3) {
    const rest = bytes.length - i;
    const n = (bytes[i] << 16) | ((rest > 1 ? bytes[i + 1] : 0) << 8) | (rest > 2 ? bytes[i + 2] : 0);
    text += ALPHABET[(n >> 18) & 63] + ALPHABET[(n >> 12) & 63];
    text += rest > 1 ? ALPHABET[(n >> 6) & 63] : '=';
    text += rest > 2 ? ALPHABET[n & 63] : '=';
  }
  return text;
}

// Blanks and "=" may stand anywhere; any other stray character, or one dangling symbol, makes the text
// unreadable and gives null.
export function base64UrlDecode(text) {
  if (typeof text !== 'string') return null;
  const symbols = [];
  for (const ch of text) {
    if (ch === '=' || /\s/.test(ch)) continue;
    const value = ALPHABET.indexOf(ch);
    if (value < 0) return null;
    symbols.push(value);
  }
  if (symbols.length % 4 === 1) return null;
  const out = new Uint8Array(Math.floor((symbols.length * 3) / 4));
  let o = 0;
  for (let i = 0; i < symbols.length; i += 4) {
    const group = symbols.slice(i, i + 4);
    const n = (group[0] << 18) | (group[1] << 12) | ((group[2] ?? 0) << 6) | (group[3] ?? 0);
    out[o++] = (n >> 16) & 255;
    if (group.length > 2) out[o++] = (n >> 8) & 255;
    if (group.length > 3) out[o++] = n & 255;
  }
  return out;
}

async function sha256(bytes) {
  return new Uint8Array(await crypto.subtle.digest('SHA-256', bytes));
}

function hex(bytes) {
  return Array.from(bytes, (b) => b.toString(16).padStart(2, '0')).join('');
}

// What a tab keeps for one computer: the hash for plain requests and the raw AES key for envelopes.
// Neither gives the password back.
export async function deriveProof(computerId, password) {
  const keyString = utf8.encode(`${computerId}___${password}`);
  const digest = await sha256(keyString);
  // A key string of exactly 32 bytes is the AES key itself; any other length is hashed to 32.
  const aesKey = keyString.length === 32 ? keyString : digest;
  return { pwordHash: hex(digest), aesKey: base64UrlEncode(aesKey) };
}

export async function importAesKey(aesKeyText) {
  const raw = base64UrlDecode(aesKeyText);
  return crypto.subtle.importKey('raw', raw, { name: 'AES-CBC' }, false, ['encrypt', 'decrypt']);
}

export async function encrypt(key, bytes) {
  return new Uint8Array(await crypto.subtle.encrypt({ name: 'AES-CBC', iv: ZERO_IV }, key, bytes));
}

// Throws when the padding is wrong, which is what a wrong key almost always gives.
export async function decrypt(key, bytes) {
  return new Uint8Array(await crypto.subtle.decrypt({ name: 'AES-CBC', iv: ZERO_IV }, key, bytes));
}
