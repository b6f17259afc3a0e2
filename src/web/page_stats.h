// The statistics page "/stats": figures of the process and of every stream.
#pragma once

// Route handler: one complete response. Server thread. Holds no lock while it formats.
void handle_stats_page(int socket);
