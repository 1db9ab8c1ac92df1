#include "services/mail_body.h"

#include <sys/stat.h>
#include <unistd.h>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "base/base64.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "identity/user_files.h"
#include "services/mail_header.h"

namespace {

constexpr size_t base64_line = 57;                 // bytes that make 76 characters
constexpr size_t block_size = base64_line * 1024;  // read at a time
constexpr size_t text_line_max = 998;
constexpr size_t quoted_line_max = 76;

int file_error(const MailData& piece, int number, qx7_error* error) {
    return qx_error_set(error, -1, number, number_mail_file, "%s",
                        call_insert(piece.fileName, number).c_str());
}

// Fills `block` as far as the file goes. -1 with number_mail_file, also when it ends before its size.
int read_block(const MailData& piece, off_t at, std::string* block, qx7_error* error) {
    block->resize(std::min(block_size, static_cast<size_t>(piece.size - at)));
    size_t filled = 0;
    while (filled < block->size()) {
        const ssize_t n = pread(piece.fd.get(), block->data() + filled, block->size() - filled,
                                at + static_cast<off_t>(filled));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return file_error(piece, n < 0 ? errno : ESTALE, error);
        }
        filled += static_cast<size_t>(n);
    }
    return 0;
}

// Calls `take` with each block; its result above 0 ends the walk early, below 0 is returned.
int walk_piece(const MailData& piece, const std::function<int(std::string_view)>& take, qx7_error* error) {
    if (!piece.fd.valid()) {
        return std::min(take(piece.buf), 0);
    }
    std::string block;
    for (off_t at = 0; at < piece.size; at += static_cast<off_t>(block.size())) {
        if (read_block(piece, at, &block, error) != 0) {
            return -1;
        }
        if (const int result = take(block); result != 0) {
            return std::min(result, 0);
        }
    }
    return 0;
}

// Whether what comes block by block can travel as lines.
struct plain_test {
    size_t column = 0;
    bool after_cr = false;
    bool bare_ends = false;
    bool full_ends = false;

    bool take(std::string_view block) {
        for (const char c : block) {
            if (c <= 0 || c == 127 || (after_cr && c != '\n')) {
                return false;
            }
            if (c == '\n') {
                (after_cr ? full_ends : bare_ends) = true;
                column = 0;
            } else if (c != '\r' && ++column > text_line_max) {
                return false;
            }
            after_cr = c == '\r';
        }
        return !(bare_ends && full_ends);
    }
    bool end() const { return !after_cr; }
};

// The first place of `wanted` at or behind `at`, npos without one. By its first and its last byte at once, 16
// places at a time: in most files both meet seldom, and a search that looks at one byte alone stops ten times
// as often.
size_t find_from(std::string_view text, size_t at, std::string_view wanted) {
#ifdef __SSE2__
    constexpr size_t step = 16;
    const __m128i first = _mm_set1_epi8(wanted.front());
    const __m128i last = _mm_set1_epi8(wanted.back());
    for (; at + step + wanted.size() <= text.size(); at += step) {
        const auto* place = reinterpret_cast<const __m128i*>(text.data() + at);
        const auto* place_of_last = reinterpret_cast<const __m128i*>(text.data() + at + wanted.size() - 1);
        const __m128i both = _mm_and_si128(_mm_cmpeq_epi8(_mm_loadu_si128(place), first),
                                           _mm_cmpeq_epi8(_mm_loadu_si128(place_of_last), last));
        for (unsigned bits = static_cast<unsigned>(_mm_movemask_epi8(both)); bits != 0; bits &= bits - 1) {
            const size_t hit = at + static_cast<size_t>(std::countr_zero(bits));
            if (text.compare(hit, wanted.size(), wanted) == 0) {
                return hit;
            }
        }
    }
#endif
    return at < text.size() ? text.find(wanted, at) : std::string_view::npos;
}

// Counts what follows each place where a line begins with the boundary.
struct boundary_search {
    const std::string& boundary;
    std::vector<size_t> followers = std::vector<size_t>(256);
    bool found = false;
    std::string window = "\n";  // the first line begins somewhere too

    explicit boundary_search(const std::string& wanted) : boundary(wanted) {}

    // Across the seam first, then in the block as it stands: a copy of each block would cost more than the
    // search.
    void take(std::string_view block) {
        const size_t seam = boundary.size() + 3;
        const size_t from_before = window.size();
        window += block.substr(0, 2 * seam);
        count_all(window, 0, from_before + 3);
        count_all(block, 3, block.size());
        if (block.size() > 2 * seam) {
            window = block.substr(block.size() - seam);
        } else if (window.size() > seam) {
            window.erase(0, window.size() - seam);
        }
    }
    void end() {
        window += '\n';
        if (window.size() > boundary.size()) {
            const size_t at = window.size() - boundary.size() - 1;
            if (window.compare(at, boundary.size(), boundary) == 0) {
                count(window, at);
            }
        }
    }

  private:
    // Those that begin from `low` on and below `high`, with what follows them; the byte behind the last place
    // comes with the next block.
    void count_all(std::string_view text, size_t low, size_t high) {
        for (size_t at = low; at < high && at < text.size();) {
            at = find_from(text, at, boundary);
            if (at == std::string_view::npos) {
                break;
            }
            if (at < high && at + boundary.size() < text.size()) {
                count(text, at);
            }
            ++at;
        }
    }
    void count(std::string_view text, size_t at) {
        const bool first = at >= 1 && text[at - 1] == '\n';
        const bool dashed = at >= 3 && text.compare(at - 3, 3, "\n--") == 0;
        if (first || dashed) {
            found = true;
            ++followers[static_cast<unsigned char>(text[at + boundary.size()])];
        }
    }
};

// Text on its way out: line ends become CR LF, dots are doubled. Keeps its state between blocks.
struct text_writer {
    const mail_sink& sink;
    bool line_start = true;
    bool after_cr = false;
    std::string out;

    explicit text_writer(const mail_sink& target) : sink(target) {}

    int write(std::string_view text) {
        out.clear();
        while (!text.empty()) {
            const size_t end = text.find_first_of("\r\n");
            take_run(text.substr(0, end));
            if (end == std::string_view::npos) {
                break;
            }
            if (text[end] == '\r') {
                after_cr = true;
            } else {
                out += "\r\n";
                line_start = true;
                after_cr = false;
            }
            text.remove_prefix(end + 1);
        }
        return out.empty() ? 0 : sink(out);
    }
    // Ends a line that is open.
    int end_line() { return line_start ? 0 : write("\n"); }

  private:
    void take_run(std::string_view run) {
        if (run.empty()) {
            return;
        }
        if (line_start && run.front() == '.') {
            out += '.';
        }
        out += run;
        line_start = false;
        after_cr = false;
    }
};

int write_base64(const MailData& piece, const mail_sink& sink, qx7_error* error) {
    std::string out;
    return walk_piece(
        piece,
        [&](std::string_view block) {
            out.clear();
            mail_append_base64(&out, block);
            return sink(out);
        },
        error);
}

// A file of text that was changed meanwhile could end the part, or hold what no line may hold.
int write_plain(const MailData& piece, const std::string& boundary, text_writer* writer, qx7_error* error) {
    plain_test test;
    boundary_search search(boundary);
    bool changed = false;
    const int result = walk_piece(
        piece,
        [&](std::string_view block) {
            search.take(block);
            changed = !test.take(block) || search.found;
            return changed ? -1 : writer->write(block);
        },
        error);
    search.end();
    changed = changed || (result == 0 && (search.found || !test.end()));
    return changed ? file_error(piece, ESTALE, error) : result;
}

std::string text_fields(const MailData& text, const std::string& charset) {
    return std::string("Content-Type: text/") + (text.html ? "html" : "plain") + "; charset=" + charset +
           "\r\n" + (text.plain ? "" : "Content-Transfer-Encoding: quoted-printable\r\n");
}

std::string file_fields(const MailData& piece, const std::string& charset) {
    std::string fields = piece.plain ? "Content-Type: text/plain; charset=" + charset
                                     : std::string("Content-Type: application/octet-stream");
    if (!piece.fileName.empty()) {
        fields += addParameter_old("name", piece.fileName, charset);
    }
    fields += piece.plain ? "\r\n" : "\r\nContent-Transfer-Encoding: base64\r\n";
    fields += "Content-Disposition: attachment";
    if (!piece.fileName.empty()) {
        fields += ";" + addParameter("filename", piece.fileName, charset);
    }
    return fields + "\r\n";
}

int write_text(const MailData& text, text_writer* writer) {
    return writer->write(text.plain ? text.buf : mail_quoted_printable(text.buf));
}

// The CR LF in front of a boundary belongs to the boundary.
int write_parts(const std::vector<MailData>& pieces, const std::string& boundary, const std::string& charset,
                text_writer* writer, qx7_error* error) {
    for (size_t at = 0; at < pieces.size(); ++at) {
        const MailData& piece = pieces[at];
        const std::string fields = at == 0 ? text_fields(piece, charset) : file_fields(piece, charset);
        if (writer->write("\r\n--" + boundary + "\r\n" + fields + "\r\n") != 0) {
            return -1;
        }
        int result;
        if (at == 0) {
            result = write_text(piece, writer);
        } else if (piece.plain) {
            result = write_plain(piece, boundary, writer, error);
        } else {
            result = write_base64(piece, writer->sink, error);
        }
        if (result != 0) {
            return -1;
        }
    }
    return writer->write("\r\n--" + boundary + "--\r\n");
}

std::string last_part(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

int open_piece(const std::string& path, MailData* piece, qx7_error* error) {
    piece->fileName = path;
    if (path.empty() || path.front() != '/') {
        return file_error(*piece, path.empty() ? ENOENT : EINVAL, error);
    }
    piece->fd.reset(open_read_on_order(path.c_str()));
    struct stat status {};
    if (!piece->fd.valid() || fstat(piece->fd.get(), &status) != 0) {
        return file_error(*piece, errno, error);
    }
    piece->size = status.st_size;
    piece->fileName = last_part(path);
    return 0;
}

}  // namespace

int mail_open_pieces(const mail_order& order, std::vector<MailData>* pieces, qx7_error* error) {
    pieces->clear();
    pieces->resize(order.attachments.size() + 1);
    pieces->front().buf = order.text;
    pieces->front().html = order.html;
    for (size_t at = 0; at < order.attachments.size(); ++at) {
        if (open_piece(order.attachments[at], &(*pieces)[at + 1], error) != 0) {
            return -1;
        }
    }
    return 0;
}

int is7bitData(MailData* piece, qx7_error* error) {
    plain_test test;
    bool good = true;
    if (walk_piece(
            *piece,
            [&](std::string_view block) {
                good = test.take(block);
                return good ? 0 : 1;
            },
            error) != 0) {
        return -1;
    }
    piece->plain = good && test.end();
    return 0;
}

void expandBoundary(std::string* boundary, const std::vector<size_t>& followers) {
    static constexpr std::string_view permitted =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789'()+_,-./:=?";
    *boundary += *std::min_element(permitted.begin(), permitted.end(), [&](char a, char b) {
        return followers[static_cast<unsigned char>(a)] < followers[static_cast<unsigned char>(b)];
    });
}

int checkBoundary(const std::vector<MailData>& pieces, std::string* boundary, qx7_error* error) {
    for (size_t at = 0; at < pieces.size();) {
        boundary_search search(*boundary);
        if (walk_piece(
                pieces[at],
                [&](std::string_view block) {
                    search.take(block);
                    return 0;
                },
                error) != 0) {
            return -1;
        }
        search.end();
        if (search.found) {
            expandBoundary(boundary, search.followers);
        }
        at = search.found ? 0 : at + 1;
    }
    return 0;
}

int mail_write(const std::string& header, const std::vector<MailData>& pieces, const std::string& charset,
               const mail_sink& sink, qx7_error* error) {
    qx_error_clear(error);
    text_writer writer(sink);
    if (writer.write(header + "MIME-Version: 1.0\r\n") != 0) {
        return -1;
    }
    if (pieces.size() == 1) {
        const bool good = writer.write(text_fields(pieces[0], charset) + "\r\n") == 0 &&
                          write_text(pieces[0], &writer) == 0 && writer.end_line() == 0;
        return good ? 0 : -1;
    }
    std::string boundary = mail_boundary_start;
    if (checkBoundary(pieces, &boundary, error) != 0 ||
        writer.write("Content-Type: multipart/mixed; boundary=\"" + boundary + "\"\r\n") != 0) {
        return -1;
    }
    return write_parts(pieces, boundary, charset, &writer, error);
}

void mail_append_base64(std::string* out, std::string_view block) {
    const size_t start = out->size();
    const size_t lines = (block.size() + base64_line - 1) / base64_line;
    out->resize(start + base64_size(block.size()) + lines * 2);
    base64_lines_to(block, out->data() + start);
}

std::string mail_quoted_printable(std::string_view text) {
    static constexpr char hex_digits[] = "0123456789ABCDEF";
    std::string out;
    size_t column = 0;
    for (size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const bool full_end = byte == '\r' && at + 1 < text.size() && text[at + 1] == '\n';
        if (full_end || byte == '\n') {
            out += "\r\n";
            at += full_end ? 1 : 0;
            column = 0;
            continue;
        }
        const bool last = at + 1 == text.size() || text[at + 1] == '\n' || text[at + 1] == '\r';
        const bool literal =
            (byte > 32 && byte < 127 && byte != '=') || ((byte == ' ' || byte == '\t') && !last);
        const size_t width = literal ? 1 : 3;
        if (column + width > quoted_line_max - 1) {
            out += "=\r\n";
            column = 0;
        }
        if (literal) {
            out += static_cast<char>(byte);
        } else {
            out += '=';
            out += hex_digits[byte >> 4];
            out += hex_digits[byte & 15];
        }
        column += width;
    }
    return out;
}
