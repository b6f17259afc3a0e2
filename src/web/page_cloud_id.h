// The cloud ID page "/cloudid": the ID by which the device is added to a personal account.
#pragma once

// Route handler: one complete response. Server thread.
void handle_cloud_id_page(int socket);
