// File retrieval. The first byte chooses: the bytes as an XML request, the bytes as the record inside of a
// good one, or the bytes as a file that is read from one of its ends. What is sent must be well-formed, and
// what is read must be the file's own.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/base64.h"
#include "base/file_data.h"
#include "base/message_numbers.h"
#include "fuzz_file.h"
#include "retrieval/file_retrieval.h"

namespace {

void require(bool holds) {
    if (!holds) {
        abort();
    }
}

// An answer has as many quotes as its attributes need, whatever the texts in it were.
void answer_is_sound(const std::string& key, const std::string& insert) {
    const std::string text = file_answer_error(key, 1, insert);
    size_t quotes = 0;
    for (const char c : text) {
        quotes += c == '"' ? 1 : 0;
    }
    require(quotes == 6 && text.size() <= file_answer_error_max);
}

void take_text(const std::string& text) {
    // A copy of its own, so that a step behind its end is seen.
    char* copy = static_cast<char*>(malloc(text.size() + 1));
    memcpy(copy, text.data(), text.size());
    const std::string_view view(copy, text.size());
    char key[file_request_key_size];
    qx7_error error;
    if (read_requestKey(view, key, sizeof key, &error) == 0) {
        answer_is_sound(key, text.substr(0, 3000));
    } else {
        answer_is_sound(file_request_no_key, error.qx_msgInsert);
    }
    file_request request;
    qx7_error fault;
    if (file_request_parse(view, &request, &fault) == 0) {
        require(request.request == key);
        require(request.cdata.cd_blocksize >= file_request_block_min &&
                request.cdata.cd_blocksize <= file_request_block_max);
    } else {
        require(fault.qx_msgnr == number_file_read_form || fault.qx_msgnr == number_file_read_no_login);
    }
    free(copy);
}

void take_file(const uint8_t* data, size_t size) {
    if (size < 3) {
        return;
    }
    const std::string content(reinterpret_cast<const char*>(data) + 3, size - 3);
    const fuzz_file file(data + 3, size - 3);
    GETF_PL request;
    request.gf_cData.cd_filetype = FILE_REQUEST_TEXT;
    request.gf_records = data[0];
    request.gf_blocksize = static_cast<size_t>(file_request_block_min) + data[1];
    request.gf_maxRecSize = data[1];
    request.gf_fileSize = static_cast<int64_t>(content.size());
    const bool end = (data[2] & 1) != 0;
    require(set_textCoding(&request, file.fd) == 0);
    if ((end ? create_endRecBuf(&request, file.fd) : create_beginRecBuf(&request, file.fd)) != 0) {
        return;
    }
    request.gf_restSendSize = request.gf_sendSize;
    std::string all;
    qx7_error error;
    while (request.gf_restSendSize > 0) {
        const int64_t before = request.gf_restSendSize;
        if (read_recordsToBuff(&request, &error) != 0) {
            require(error.qx_msgnr == number_file_read_failed);
            return;
        }
        require(request.gf_restSendSize < before);
        all += request.gf_pCdataBuff.substr(sizeof(MSG_TYPE_XML_DATA));
    }
    require(all == content.substr(static_cast<size_t>(request.gf_startPos), all.size()));
    require(!end || static_cast<size_t>(request.gf_startPos) + all.size() == content.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (data[0] % 3) {
        case 0:
            take_text(text);
            break;
        case 1: {
            std::string xml =
                "<?xml?><qx-env addr=\"a\" name=\"n\" request=\"k\" session=\"1\" useridnr=\"7\"><request "
                "name=\"G\" src=\"s\"><![CDATA[";
            base64_encode(text, &xml);
            take_text(xml + "]]></request></qx-env>");
            break;
        }
        default:
            take_file(data + 1, size - 1);
    }
    return 0;
}
