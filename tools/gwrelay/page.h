// page.h - what the relay knows, for people and for programs.
#pragma once

#include "registry.h"

std::string page_html(const relay& hub);
std::string page_json(const relay& hub);
