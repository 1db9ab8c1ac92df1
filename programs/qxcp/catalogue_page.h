// The catalogue as a page for people who write the other side.
#pragma once

#include <string>

// The page as Markdown: every message and record with its fields, positions, types and versions, made from
// the tables that the agent itself walks by.
std::string cp_catalogue_page();
