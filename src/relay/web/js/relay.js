// Calls to the relay's browser side. Every failure becomes a RelayError with a sentence a person can read;
// a relay that never answers is cut off by the caller's deadline instead of hanging the page.

export class RelayError extends Error {
  constructor(code, message, status = 0) {
    super(message);
    this.code = code;
    this.status = status;
  }
}

async function readError(response) {
  try {
    const body = await response.json();
    if (body && typeof body.message === 'string') return new RelayError(String(body.error), body.message, response.status);
  } catch {
    // Not JSON: fall through to the status line.
  }
  return new RelayError('http', `The relay answered ${response.status} ${response.statusText}.`, response.status);
}

async function call(method, path, { json, body, headers = {}, timeoutMs = 15000, signal } = {}) {
  const deadline = AbortSignal.timeout(timeoutMs);
  const options = { method, headers: { ...headers }, credentials: 'same-origin', signal: signal ? AbortSignal.any([signal, deadline]) : deadline };
  if (json !== undefined) {
    options.headers['Content-Type'] = 'application/json';
    options.body = JSON.stringify(json);
  } else if (body !== undefined) {
    options.body = body;
  }
  let response;
  try {
    response = await fetch(path, options);
  } catch (error) {
    if (signal?.aborted) throw new RelayError('cancelled', 'Cancelled.');
    if (deadline.aborted) throw new RelayError('timeout', 'The relay did not answer in time.');
    throw new RelayError('network', `The relay cannot be reached (${error.message}).`);
  }
  if (!response.ok) throw await readError(response);
  try {
    return await response.json();
  } catch {
    if (signal?.aborted) throw new RelayError('cancelled', 'Cancelled.');
    throw new RelayError('bad_reply', 'The relay sent an answer that is not JSON.', response.status);
  }
}

function object(value, what) {
  if (value === null || typeof value !== 'object' || Array.isArray(value)) {
    throw new RelayError('bad_reply', `The relay sent no ${what}.`);
  }
  return value;
}

export async function login(token) {
  await call('POST', '/api/login', { json: { token } });
}

export async function openSession() {
  const reply = object(await call('POST', '/api/session'), 'session');
  if (typeof reply.os_session !== 'string' || reply.os_session === '') {
    throw new RelayError('bad_reply', 'The relay opened no session.');
  }
  return reply.os_session;
}

export async function keepSessionAlive(id) {
  await call('POST', `/api/session/${encodeURIComponent(id)}/alive`);
}

// Sent as the page goes away, when a normal request might be cut off.
export function closeSession(id) {
  navigator.sendBeacon(`/api/session/${encodeURIComponent(id)}/close`);
}

export async function computers() {
  const reply = object(await call('GET', '/api/computers'), 'computer list');
  if (!Array.isArray(reply.computers)) throw new RelayError('bad_reply', 'The relay sent no computer list.');
  return reply.computers.filter((c) => c && typeof c.computer_id === 'string' && c.computer_id !== '');
}

// Sends one request record and waits for its answer: { result } or { result_encrypted }. The relay ends
// the wait with the record's lifetime; the extra margin only guards against a relay that hangs.
export async function request(computerId, record, { signal } = {}) {
  const lifetimeMs = (record.lifetime ?? 30) * 1000;
  const reply = await call('POST', '/api/request', {
    json: { computer_id: computerId, request: record },
    timeoutMs: lifetimeMs + 15000,
    signal,
  });
  return object(reply, 'result');
}

export async function upload(cloud, file) {
  const reply = object(
    await call('POST', `/api/upload?cloud=${encodeURIComponent(cloud)}&name=${encodeURIComponent(file.name)}`, {
      body: file,
      headers: { 'Content-Type': 'application/octet-stream' },
      timeoutMs: 30 * 60 * 1000,
    }),
    'upload receipt',
  );
  if (typeof reply.relative_path !== 'string') throw new RelayError('bad_reply', 'The relay did not say where the upload went.');
  return reply.relative_path;
}

export function downloadUrl(cloud, relativePath) {
  const path = relativePath.replace(/^\/+/, '');
  return `/api/download?cloud=${encodeURIComponent(cloud)}&path=${encodeURIComponent(path)}`;
}
