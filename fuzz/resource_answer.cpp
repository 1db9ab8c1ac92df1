// GETFILE: the XML request, RES_DATA with the login that was asked for, QUITT in its place, and the questions
// for further blocks, in any order. The first byte chooses whether passwords are checked; the file is the
// fuzzer's too.
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "agent_side.h"
#include "base/base64.h"
#include "base/text.h"
#include "input.h"
#include "messages/frame.h"
#include "retrieval/file_retrieval.h"

namespace {

void preset_login(message_bytes* message) {
    constexpr char type[] = "RES_DATA";
    set_field(message, type, "type", "LOGIN");
    set_field(message, type, "name", "LOGIN");
    std::string content(200, ' ');
    content.replace(0, strlen(sandbox_user), sandbox_user);
    add_data(message, type, "content", content);
}

constexpr fuzz_order login = {"GETFILE", "RES_DATA", preset_login};
constexpr fuzz_order refusal = {"GETFILE", "QUITT   ", nullptr};

// A request in the form that the server writes, its values from the source.
std::string request(byte_source* source) {
    RCV_CD record{};
    put_text(record.cd_requesttype, "GETFILE ");
    const std::string_view name = source->text();
    put_text(record.cd_filename, sandbox().folder + "/home/" + (name.empty() ? "file" : std::string(name)));
    put_text(record.cd_loginobject, "LOGIN");
    record.cd_blocksize = source->byte() << (source->byte() % 24);
    record.cd_records = static_cast<int8_t>(source->byte());
    record.cd_pos = static_cast<int8_t>(source->byte());
    record.cd_filetype = (source->byte() & 1) != 0 ? char{FILE_REQUEST_TEXT} : 'B';
    record.cd_readdirection = (source->byte() & 1) != 0 ? FILE_REQUEST_BEGIN : FILE_REQUEST_END;
    std::string text =
        "<?xml version=\"1.0\"?><qx-env addr=\"*CP001\" name=\"UI\" request=\"K1\" session=\"5\" "
        "useridnr=\"7\"><request name=\"GETFILE\" src=\"UI\"><![CDATA[";
    base64_encode(std::string_view(reinterpret_cast<const char*>(&record), sizeof record), &text);
    return text + "]]></request></qx-env>";
}

void give_xml(std::string_view text) {
    fuzz_give("GETFILE", message_bytes(text.begin(), text.end()));
}

void step(byte_source* source) {
    switch (source->byte() % 5) {
        case 0:
            give_xml(request(source));
            break;
        case 1:
            fuzz_give(login.module, fuzz_message(source, login));
            break;
        case 2:
            fuzz_give(refusal.module, fuzz_message(source, refusal));
            break;
        case 3:
            give_xml("<" + std::string(source->text()));
            break;
        default:
            check_fileReqTimeout(&fuzz_agent());
    }
}

void run(byte_source* source) {
    EX_PCX& pcx = fuzz_agent();
    const uint8_t choice = source->byte();
    sandbox_open();
    std::ofstream(sandbox().folder + "/home/file", std::ios::binary) << source->text();
    sandbox_close();
    pcx.pcx_JobPwCheck = (choice & 1) != 0 ? 1 : 0;
    fuzz_steps(source, 6, step);
    GET_fileClose(&pcx);
    GET_fileOpen(&pcx);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzz_input(data, size, 3, run);
}
