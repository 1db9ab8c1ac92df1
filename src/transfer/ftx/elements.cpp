// The files of a transfer and their states.
#include <cstdint>

#include "base/text.h"
#include "log/log.h"
#include "transfer/ftx/entry.h"

namespace {

constexpr size_t element_insert_max = 1023;

// Which of the entry's counters an element in that state belongs to; null for what is no state.
int32_t* counter_of(ftx_entry* ftx, char status) {
    switch (status) {
        case FTXE_WAITING:
        case FTXE_ACTIVE:
        case FTXE_AGAIN:
            return &ftx->ftx_nof_active;
        case FTXE_SENT:
            return &ftx->ftx_nof_sent;
        case FTXE_COMPLETE:
            return &ftx->ftx_nof_completed;
        case FTXE_ERROR:
        case FTXE_LEFT_OUT:
            return &ftx->ftx_nof_error;
        default:
            return nullptr;
    }
}

}  // namespace

ftx_elem* ftxe_addnew(ftx_entry* ftx, int oid) {
    if (oid < 0) {
        return nullptr;
    }
    const size_t before = ftx->elements.size();
    ftx_elem* elem = &ftx->elements.try_emplace(ftx->elements.end(), oid)->second;
    if (ftx->elements.size() != before) {
        elem->ftxe_oId = oid;
        elem->ftxe_text_coding = '0';
        elem->ftxe_status = FTXE_WAITING;
        ++ftx->ftx_nof_active;
    }
    return elem;
}

ftx_elem* ftxe_getbyOID(ftx_entry* ftx, int oid) {
    const auto found = ftx->elements.find(oid);
    return found == ftx->elements.end() ? nullptr : &found->second;
}

ftx_elem* getFtxElemNext(ftx_entry* ftx) {
    const auto next =
        ftx->current == nullptr ? ftx->elements.begin() : ftx->elements.upper_bound(ftx->current->ftxe_oId);
    ftx->current = next == ftx->elements.end() ? nullptr : &next->second;
    return ftx->current;
}

void ftxe_remove(ftx_entry* ftx, ftx_elem* elem) {
    if (ftx->current == elem) {
        ftx->current = nullptr;
    }
    ftx->elements.erase(elem->ftxe_oId);
}

void ftxe_remove_all(ftx_entry* ftx) {
    ftx->current = nullptr;
    ftx->elements.clear();
}

int update_FtxStatus(ftx_entry* ftx, ftx_elem* elem, char status) {
    if (elem->ftxe_status == status) {
        return 0;
    }
    int32_t* const counter = counter_of(ftx, status);
    if (counter == nullptr) {
        __PutLogText("something wrong, unknown status '%s' - X'%02X'", printable({&status, 1}).c_str(),
                     static_cast<unsigned char>(status));
        return -1;
    }
    if (int32_t* const old = counter_of(ftx, elem->ftxe_status); old != nullptr) {
        --*old;
    }
    ++*counter;
    elem->ftxe_status = status;
    elem->ftxe_flag |= FTXE_CHANGED;
    return 0;
}

void ftxe_set_message(ftx_elem* elem, int number, int error_number, std::string_view insert) {
    elem->ftxe_msgnr = number;
    elem->ftxe_errno = error_number;
    elem->insert = insert.substr(0, element_insert_max);
}

void ftxe_take_error(ftx_elem* elem, const qx7_error& error) {
    ftxe_set_message(elem, error.qx_msgnr, error.qx_errno, error.qx_msgInsert);
}
