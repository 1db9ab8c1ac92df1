// What an agent's message says, in words.
#pragma once

#include <string>
#include <string_view>

// The English text of the message library that the program was built with, its inserts filled in, and the
// number behind it: "User 'nobody1' is not known. (U02001007)". A number without a text is shown before its
// bare inserts. Number 0 gives the inserts alone.
std::string cp_message_text(int number, std::string_view inserts);
