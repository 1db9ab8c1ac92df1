// What the files and folders of a transfer are called here. With a wildcard the partner's names decide, so what
// comes out is looked at: nothing leaves the part of the file system that the order names.
#include <algorithm>
#include <cerrno>

#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "transfer/control_stream.h"
#include "transfer/file_names.h"
#include "transfer/ftx/destination_write.h"

namespace {

// Far more than blocks between two reports can hold, unless they were made to fill the memory.
constexpr size_t unreported_max = 1000000;
constexpr char unconverted[] = "dest. filename unabled to convert";

bool has_parent_part(std::string_view path) {
    for (const std::string_view part : split_words(path, '/')) {
        if (part == "..") {
            return true;
        }
    }
    return false;
}

// Bytes up to the last '/' in front of the first wildcard of the mask.
size_t fixed_part(std::string_view mask) {
    const size_t wild = std::min(mask.find_first_of("*?&"), mask.size());
    return mask.substr(0, wild).rfind('/') + 1;
}

int name_refused(std::string_view name, std::string_view mask, qx7_error* err) {
    return qx_error_set(err, -1, 0, number_name_differs, "%s|%s|", printable(name).c_str(),
                        printable(mask).c_str());
}

int name_too_long(const ftx_entry* ftx, std::string_view name, qx7_error* err) {
    return qx_error_set(err, -1, ENAMETOOLONG, number_transfer_open_failed, "%d|%s|errno %d, %s",
                        ftx->ftx_transfer_id, printable(name.substr(0, 200)).c_str(), ENAMETOOLONG,
                        error_text(ENAMETOOLONG).c_str());
}

int conversion_failed(const ftx_entry* ftx, std::string_view name, const ftxerr& failure, qx7_error* err) {
    return failure.nr == ENAMETOOLONG
               ? name_too_long(ftx, name, err)
               : qx_error_set(err, -1, 0, failure.nr, "%s", printable(failure.insert).c_str());
}

int ordered_names(const ftx_entry* ftx, ftx_elem* elem, qx7_error* err) {
    elem->source_name = ftx->source_file;
    elem->destination_name = ftx->destination_file;
    if (elem->destination_name.find('\0') != std::string::npos) {
        return name_refused(elem->destination_name, ftx->destination_file, err);
    }
    return elem->destination_name.size() > ftx_name_max ? name_too_long(ftx, elem->destination_name, err) : 0;
}

// A name that a wildcard made.
int take_made_name(const ftx_entry* ftx, ftx_elem* elem, std::string name, qx7_error* err) {
    const bool zeros =
        elem->source_name.find('\0') != std::string::npos || name.find('\0') != std::string::npos;
    if (zeros || has_parent_part(std::string_view(name).substr(dst_fixed_length(ftx, name)))) {
        return name_refused(elem->source_name, ftx->destination_file, err);
    }
    elem->destination_name = std::move(name);
    return 0;
}

std::string folder_source(const ftx_entry* ftx, const ftx_elem* elem) {
    std::string source = elem->source_name;
    if (ftx->ftx_src_hosttype == fs_unix && (source.empty() || source.back() != '/')) {
        source += '/';
    }
    return source;
}

// What stands in front of the file in the source's mask, by the delimiter that the converter cuts it at.
std::string_view source_folder(const ftx_entry* ftx) {
    const char delimiter = ftx->ftx_src_hosttype == fs_windows ? '\\' : '/';
    const std::string_view mask = ftx->source_file;
    return mask.substr(0, mask.rfind(delimiter) + 1);
}

}  // namespace

size_t dst_fixed_length(const ftx_entry* ftx, std::string_view name) {
    const size_t whole = name.rfind('/') + 1;
    return ftx->ftx_wildcard == ftx_yes ? std::min(fixed_part(ftx->destination_file), name.size()) : whole;
}

ftx_elem* dst_element(ftx_entry* ftx, std::string_view item) {
    int64_t oid;
    if (cbsGetInt64(item, "OID", &oid) != 0 || oid < 0 || oid > INT32_MAX ||
        ftx->elements.size() >= unreported_max) {
        return nullptr;
    }
    ftx_elem* const elem = ftxe_addnew(ftx, static_cast<int>(oid));
    ftx->current = elem;
    if (elem->ftxe_status == FTXE_AGAIN) {
        update_FtxStatus(ftx, elem, FTXE_WAITING);
    }
    return elem;
}

int dst_file_names(const ftx_entry* ftx, ftx_elem* elem, std::string_view item, qx7_error* err) {
    if (ftx->ftx_wildcard != ftx_yes) {
        return ordered_names(ftx, elem, err);
    }
    elem->destination_name = unconverted;
    elem->source_name.clear();
    cbsGetString(item, "FNAME", &elem->source_name);
    if (elem->source_name.size() > ftx_name_max) {
        elem->source_name.resize(ftx_name_max);
        return name_too_long(ftx, elem->source_name, err);
    }
    std::string name;
    ftxerr failure;
    if (fngConvert(ftx->source_file, elem->source_name, ftx->destination_file, &name, ftx_name_max,
                   ftx->ftx_src_hosttype, fs_unix, &failure) != 0) {
        return conversion_failed(ftx, elem->source_name, failure, err);
    }
    return take_made_name(ftx, elem, std::move(name), err);
}

int dst_folder_names(const ftx_entry* ftx, ftx_elem* elem, std::string_view item, qx7_error* err) {
    elem->ftxe_flag |= FTXE_DIRECTORY;
    if (ftx->ftx_wildcard != ftx_yes) {
        return ordered_names(ftx, elem, err);
    }
    elem->destination_name = unconverted;
    elem->source_name.clear();
    cbsGetString(item, "FNAME", &elem->source_name);
    if (elem->source_name.size() > ftx_name_max) {
        elem->source_name.resize(ftx_name_max);
        return name_too_long(ftx, elem->source_name, err);
    }
    const std::string source = folder_source(ftx, elem);
    if (!source.starts_with(source_folder(ftx))) {
        return name_refused(elem->source_name, ftx->source_file, err);
    }
    std::string name;
    ftxerr failure;
    if (fngConvertDirectory(ftx->source_file, source, ftx->destination_file, &name, ftx_name_max + 1,
                            ftx->ftx_src_hosttype, fs_unix, &failure) != 0) {
        return conversion_failed(ftx, elem->source_name, failure, err);
    }
    if (!name.empty() && name.back() == '/') {
        name.pop_back();
    }
    return take_made_name(ftx, elem, std::move(name), err);
}
