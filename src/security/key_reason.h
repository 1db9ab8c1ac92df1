// The numbers of the key manager (5000 to 5024) in words for an operator. km_error_text holds the texts that
// the protocol names; some of them, such as that of 5022, say nothing to a person.
#pragma once

// What is wrong, without a capital and without a full stop; never empty. Any thread.
const char* km_reason_text(int number);
