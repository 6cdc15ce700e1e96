// admission.h - how many users there may be: in all, and from one address.
//
// A user costs a descriptor and, when he takes little, another one for the file with what waits for
// him. Who comes on top of the limits is told so; when even those who are being told are too many,
// the connection is closed at once. So nothing that users do leaves the relay without descriptors.
#pragma once

#include "hub/registry.h"

// Raises the process's limit of descriptors as far as it may, and fits the number of users to it.
void admission_fit(options& set);
// A user's story, when he is admitted; else he is told to come again.
awaitable<void> admission_serve(relay& hub, std::shared_ptr<user_link> user);
// The same for those who come to the address of the relay's own pages: no limit keeps them out.
awaitable<void> admission_admin_serve(relay& hub, std::shared_ptr<user_link> user);
