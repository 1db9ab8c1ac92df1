// `qxxjlnx encipher`: the form of a text that settings such as MAIL/smtp_password may hold instead of the
// text.
#pragma once

#include <cstdio>

// Reads one line from standard input, on a terminal without showing it, and writes its enciphered form. 0, or
// 1 after a line on `messages` about what is wrong with the text.
int encipher_command(FILE* in, FILE* out, FILE* messages);
