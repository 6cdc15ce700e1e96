// upload.h - what a user sends, on its way to his device.
#pragma once

#include "hub/registry.h"

// More of the request, on the stream that there is.
void upload_send(user_link& user, std::string_view bytes);
// Receives from the user until he ends: into his stream while it lacks something of his request,
// and else for the request that comes next.
awaitable<void> upload_serve(std::shared_ptr<user_link> user);
