// PRCWRITE: a file that the server has written for a user. The first byte chooses whether passwords are
// checked and what stands where the file shall be. The order is answered once, and what is told as written is
// there.
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "agent_side.h"

namespace {

void preset(message_bytes* message) {
    constexpr char type[] = "PRCWRITE";
    set_number(message, type, "ah_idnr", fuzz_run);
    set_field(message, type, "mode", "O");
    set_field(message, type, "logininfo", sandbox_user);
    add_data(message, type, "file", "file");
    add_data(message, type, "text", "a\r\nb\r\n");
}

constexpr fuzz_order order = {"QXREPEX", "PRCWRITE", preset};

void prepare(uint8_t choice) {
    const std::string place = sandbox().folder + "/home/file";
    if (choice == 1) {
        std::ofstream(place) << "old\n";
    } else if (choice == 2) {
        mkdir(place.c_str(), 0755);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    EX_PCX& pcx = fuzz_agent();
    byte_source source(data, size);
    const uint8_t choice = source.byte();
    prepare(choice & 3);
    fuzz_begin();
    pcx.pcx_JobPwCheck = (choice & 4) != 0 ? 1 : 0;
    for (int i = 0; i < 3 && source.left() > 0; ++i) {
        const auto before = fuzz_answers().size();
        if (fuzz_give(order.module, fuzz_message(&source, order)) && fuzz_answers().size() != before + 1) {
            abort();
        }
    }
    fuzz_end();
    return 0;
}
