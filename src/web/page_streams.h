// The Add-camera form page: "/streams" when the legacy page is asked for. Its script registers the
// ticked streams with the cloud account service, straight from the browser.
#pragma once

// Route handler: one complete response. Server thread. Holds the monitor lock while it formats the
// rows of the table.
void handle_streams_page(int socket);
