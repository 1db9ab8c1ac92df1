// What letters and numbers of a transfer mean, for people.
#include <algorithm>
#include <iterator>

#include "transfer/ftx/entry.h"

namespace {

constexpr const char* undefined = "undefined";

struct word_of {
    int value;
    const char* word;
};

constexpr word_of status_words[] = {{FTX_STATUS_RUNNING, "running"},
                                    {FTX_STATUS_FINISHED, "finished"},
                                    {FTX_STATUS_ERROR, "error"},
                                    {FTX_STATUS_CANCELLED, "cancelled"}};

constexpr word_of progress_words[] = {{FTX_STARTING, "starting"},
                                      {FTX_STARTED, "started"},
                                      {FTX_BETWEEN_FILES, "opened file"},
                                      {FTX_IN_FILE, "send data"},
                                      {FTX_SYNC_DUE, "send sync"},
                                      {FTX_CANCELLED, "cancelled"},
                                      {FTX_SYNC_ISSUED, "transfer finished"},
                                      {FTX_FINISHED, "finished"}};

constexpr word_of coding_words[] = {{'1', "code table"}, {'2', "UTF-8"}, {'3', "UCS-2BE"}, {'4', "UCS-2LE"}};

constexpr word_of control_words[] = {
    {CTRL_DATA, "data"},        {CTRL_FILE_OPEN, "file_open"},       {CTRL_FILE_CLOSE, "file_close"},
    {CTRL_SYNC, "sync"},        {CTRL_NO_OPERATION, "no_operation"}, {CTRL_RESTART_INFO, "restart_info"},
    {CTRL_MAKE_DIR, "make_dir"}};

template <size_t N>
const char* find_word(const word_of (&words)[N], int value) {
    const word_of* const found =
        std::find_if(words, std::end(words), [value](const word_of& one) { return one.value == value; });
    return found == std::end(words) ? undefined : found->word;
}

}  // namespace

const char* ftx_statusflag2str(char status) {
    return find_word(status_words, status);
}

const char* ftx_progress2str(int progress) {
    return find_word(progress_words, progress);
}

const char* ftx_textcodin2str(char coding) {
    return find_word(coding_words, coding);
}

const char* ctrldata2str(int control) {
    return find_word(control_words, control & ~CTRL_RECORD_END);
}
