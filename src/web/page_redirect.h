// The page that takes the user's browser, with the channel list, to the cloud's camera web
// interface: "/streams" unless the legacy page is asked for.
#pragma once

// Route handler: one complete response. Server thread.
void handle_redirect_page(int socket);
