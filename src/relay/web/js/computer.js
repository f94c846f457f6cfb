// One computer as the page talks to it: every request carries the tab's session and the password proof,
// either as "pword_hash" beside a plain record or as an envelope sealed with the password's key.

import { base64UrlDecode, base64UrlEncode, decrypt, encrypt, importAesKey } from './cipher.js';
import * as relay from './relay.js';

// Answers with image bytes rather than a record when they come back encrypted.
const IMAGE_TYPES = new Set(['thumb', 'preview']);

export class AgentError extends Error {
  constructor(code, message) {
    super(message);
    this.code = code;
  }
}

const utf8 = new TextEncoder();
const fromUtf8 = new TextDecoder();

function imageBytes(record, key) {
  const bytes = typeof record[key] === 'string' ? base64UrlDecode(record[key]) : null;
  return bytes && bytes.length ? bytes : null;
}

// JPEG and PNG both start with a byte above 0x7f; a JSON record starts with "{".
function looksLikeImage(bytes) {
  return bytes.length > 0 && bytes[0] !== 0x7b;
}

export class Computer {
  constructor(info, session) {
    this.id = info.computer_id;
    this.name = typeof info.computer_name === 'string' && info.computer_name ? info.computer_name : this.id;
    this.cloud = Number.isInteger(info.cloud) ? info.cloud : 0;
    this.session = session; // gives the tab's open session id, opening one when needed
    this.proof = null;
    this.aesKey = null;
    this.encryptAll = false;
    this.storageFolder = '';
  }

  async setProof(proof) {
    this.proof = proof;
    this.aesKey = proof ? await importAesKey(proof.aesKey) : null;
  }

  // Sends a request and gives { record, image }: the result record, and for a thumb or preview the
  // picture's bytes (null when the agent had none). Throws AgentError for a refused password, a time-out
  // or an answer that cannot be read.
  async ask(fields, { lifetime = 30, signal } = {}) {
    const inner = { ...fields, os_session: await this.session() };
    let record;
    if (this.encryptAll && this.aesKey) {
      const sealed = await encrypt(this.aesKey, utf8.encode(JSON.stringify(inner)));
      record = { request_type: 'encrypted', encrypted_request: base64UrlEncode(sealed), os_session: inner.os_session, lifetime };
    } else {
      record = { ...inner, lifetime };
      if (this.proof && fields.search_dir !== 'root_folders') record.pword_hash = this.proof.pwordHash;
    }
    let reply;
    try {
      reply = await relay.request(this.id, record, { signal });
    } catch (error) {
      if (error.code === 'timeout') {
        throw new AgentError(
          'timeout',
          `${this.name} did not answer in time. It may be asleep or offline, or the password may be wrong: the computer ignores such requests without a word.`,
        );
      }
      throw error;
    }
    const answer = await this.#open(reply, fields.request_type);
    this.#check(answer.record);
    return answer;
  }

  async #open(reply, type) {
    if (reply.result && typeof reply.result === 'object') {
      return { record: reply.result, image: imageBytes(reply.result, type) };
    }
    if (typeof reply.result_encrypted !== 'string') throw new AgentError('bad_reply', 'The relay passed on an empty answer.');
    if (reply.result_encrypted === 'failedencryption') {
      throw new AgentError('bad_reply', `${this.name} could not encrypt its answer.`);
    }
    const sealed = base64UrlDecode(reply.result_encrypted);
    if (!sealed || !this.aesKey) throw new AgentError('bad_reply', 'The encrypted answer is unreadable.');
    let plain;
    try {
      plain = await decrypt(this.aesKey, sealed);
    } catch {
      throw new AgentError('bad_reply', 'The encrypted answer does not open with this password.');
    }
    if (IMAGE_TYPES.has(type) && looksLikeImage(plain)) return { record: {}, image: plain };
    try {
      const record = JSON.parse(fromUtf8.decode(plain));
      if (record && typeof record === 'object' && !Array.isArray(record)) return { record, image: imageBytes(record, type) };
    } catch {
      // Reported below.
    }
    throw new AgentError('bad_reply', 'The encrypted answer is not a result.');
  }

  #check(record) {
    if (typeof record.vandrel_folder === 'string' && record.vandrel_folder) this.storageFolder = record.vandrel_folder;
    if (record.auth_error) {
      throw new AgentError('auth', `${this.name} refused the password (${record.auth_error}).`);
    }
  }
}
