// The handlers of the pages for a person, one per source file page_*.cc: each writes one complete
// response. Server thread.
#pragma once

// "/": links to the other pages, and the language switch.
void handle_home_page(int socket);

// "/cloudid": the ID by which the device is added to a personal account.
void handle_cloud_id_page(int socket);

// "/stats": figures of the process and of every stream. Holds no lock while it formats.
void handle_stats_page(int socket);

// "/streams" unless the legacy page is asked for: takes the user's browser, with the channel list,
// to the cloud's camera web interface.
void handle_redirect_page(int socket);

// "/streams" when the legacy page is asked for: a form whose script registers the ticked streams
// with the cloud account service, straight from the browser. Holds the monitor lock while it
// formats the rows of the table.
void handle_streams_page(int socket);
