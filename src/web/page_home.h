// The home page "/": links to the other pages, and the language switch.
#pragma once

// Route handler: one complete response. Server thread.
void handle_home_page(int socket);
