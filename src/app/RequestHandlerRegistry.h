#pragma once

// Connects the request engine's dispatch to the handlers that are built. Call once at start, before the
// engine runs requests.
void registerRequestHandlers();
