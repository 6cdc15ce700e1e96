// manager.h - the address manager: tells a device which control server to use.
#pragma once

#include "registry.h"

awaitable<void> manager_serve(relay& hub, std::shared_ptr<connection> link);
void manager_ended(relay& hub, const std::shared_ptr<connection>& link);
