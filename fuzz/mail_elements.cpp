// Mail orders: the elements, and what becomes of their values in a header. Whatever is in them, the header
// has the fields that it should have, one line for each.
#include "services/mail_elements.h"

#include <cstdint>
#include <cstdlib>
#include <string>

#include "services/mail_body.h"
#include "services/mail_header.h"

namespace {

// A line end only in front of a blank, or at the end.
void check_folded(const std::string& text) {
    for (size_t at = 0; at < text.size(); ++at) {
        const bool cr = text[at] == '\r';
        const bool lf = text[at] == '\n';
        if ((cr && (at + 2 >= text.size() || text[at + 1] != '\n' || text[at + 2] != ' ')) ||
            (lf && (at == 0 || text[at - 1] != '\r')) || text[at] == '\0') {
            abort();
        }
    }
}

void check_mailbox(const std::string& mailbox) {
    const std::string address = mail_address(mailbox);
    if (address.find_first_of(" \r\n<>,;\"") != std::string::npos) {
        abort();
    }
    if (!address.empty()) {
        check_folded(getAddressField(mailbox, "utf-8"));
    }
}

void check_text(const mail_order& order) {
    std::vector<MailData> pieces(2);
    pieces[0].buf = order.text;
    pieces[1].buf = order.subject;
    qx7_error error;
    std::string out;
    std::string boundary = mail_boundary_start;
    for (MailData& piece : pieces) {
        is7bitData(&piece, &error);
    }
    if (checkBoundary(pieces, &boundary, &error) != 0) {
        abort();
    }
    if (("\n" + order.text).find("\n--" + boundary) != std::string::npos) {
        abort();
    }
    pieces.resize(1);
    mail_write(
        "", pieces, "utf-8",
        [&](std::string_view bytes) {
            out += bytes;
            return 0;
        },
        &error);
    if (out.find("\r\n.\r\n") != std::string::npos || out.find('\0') != std::string::npos) {
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    mail_order order;
    qx7_error error;
    mail_read_order(view_message(data, size), &order, &error);
    if (order.timeout < 1 || order.timeout > mail_timeout_max) {
        abort();
    }
    check_folded(getSubjectField(order.subject, "utf-8"));
    check_mailbox(order.from);
    for (const auto* list : {&order.to, &order.cc}) {
        for (const std::string& mailbox : *list) {
            check_mailbox(mailbox);
        }
    }
    for (const std::string& name : order.attachments) {
        check_folded(addParameter("filename", name, "utf-8"));
        check_folded(addParameter_old("name", name, "iso-8859-1"));
    }
    check_text(order);
    return 0;
}
