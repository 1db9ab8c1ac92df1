// The body of a mail: its text and its files as parts, written piece by piece, so that no more than a block
// of a file is ever in memory. One thread at a time for each list.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/descriptor.h"
#include "services/mail_elements.h"

inline constexpr char mail_boundary_start[] = "--=qx7=";

// A piece of the mail, in memory or a file. `fd` must stay readable by position.
struct MailData {
    std::string fileName;  // last part of the path; for errors and for the recipient
    std::string buf;       // a text
    qx_descriptor fd;      // or a file of `size` bytes
    off_t size = 0;
    bool plain = false;  // set by is7bitData
    bool html = false;
};

// Where the mail goes, in pieces of any size: 0, or -1 to stop.
using mail_sink = std::function<int(std::string_view)>;

// Opens the files of the order with the rights that an order without a login has (open_read_on_order); the
// first piece is the text. -1 with number_mail_file.
int mail_open_pieces(const mail_order& order, std::vector<MailData>* pieces, qx7_error* error);

// Whether a piece may travel as lines of text and comes out as it was: bytes 1 to 127, no line above 998,
// line ends all LF or all CR LF. Fills `plain`; -1 with number_mail_file.
int is7bitData(MailData* piece, qx7_error* error);
// Extends `boundary` until no line of any piece begins with it, with "--" in front of it or without. -1 with
// number_mail_file.
int checkBoundary(const std::vector<MailData>& pieces, std::string* boundary, qx7_error* error);
// One character more: that of the permitted set which follows least often. `followers` counts by byte value.
void expandBoundary(std::string* boundary, const std::vector<size_t>& followers);

// The mail: `header` (complete lines), the MIME fields, the parts. Lines end by CR LF, one that begins with
// "." has a second one; the line "." at the end isn't written. -1 when the sink stopped (error number 0), or
// with number_mail_file when a file could not be read or is no longer what it was: the mail must not be ended
// then.
int mail_write(const std::string& header, const std::vector<MailData>& pieces, const std::string& charset,
               const mail_sink& sink, qx7_error* error);

// For tests and the benchmark. Base64 in lines of 76 characters, each with CR LF; all blocks but the last
// have a multiple of 57 bytes.
void mail_append_base64(std::string* out, std::string_view block);
std::string mail_quoted_printable(std::string_view text);
