// The routes of the HTTP server.
#pragma once

// Registers every route in the order in which the home page lists them. False (logged) at the
// first that fails. Main thread, during the server's start.
[[nodiscard]] bool register_routes();
