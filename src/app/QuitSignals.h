#pragma once

// Makes SIGINT and SIGTERM end the running application's event loop (QCoreApplication::quit), so the
// engine stops in order when a terminal, systemd or the session ends the agent. Call once, after the
// application object exists; false (nothing changed) when the signals cannot be watched.
bool quitOnSignals();
