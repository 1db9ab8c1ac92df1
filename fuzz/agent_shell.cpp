// Requests of the service console, and lines that it cleans of secrets. Commands that end the process or give
// it away are left out.
#include "services/agent_shell.h"

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "base/text.h"
#include "channels/messages.h"
#include "log/log.h"
#include "messages/conversion.h"

namespace {

constexpr char secret[] = "zzSECRETzz";
msgconv_ctx_t conversion;
std::string output_file;

void open_context() {
    static EX_PCX pcx;
    if (GlbPcx != nullptr) {
        return;
    }
    GlbPcx = &pcx;
    __log_set_logger(log_dummy);
    msgconv_open(&conversion, nullptr, nullptr, nullptr, nullptr, nullptr, 1);
    pcx.pcx_msgctx = &conversion;
    setenv("QX_FUZZ_PASSWORD", secret, 1);
    char folder[] = "/tmp/qx-fuzz-XXXXXX";
    if (freopen("/dev/null", "w", stdout) == nullptr || ccm_open(&pcx, &pcx.ccm, nullptr) != 0 ||
        mkdtemp(folder) == nullptr) {
        abort();
    }
    copy_text(pcx.pcx_TmpFolder, folder);
    output_file = std::string(folder) + "/output";
    atexit([] {
        unlink(output_file.c_str());
        rmdir(GlbPcx->pcx_TmpFolder);
    });
}

bool holds_secret(const std::string& text) {
    return text.find(secret) != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    open_context();
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (as_clean_line("QX_PASSWORD=" + text) != "QX_PASSWORD=***" ||
        (!holds_secret(text) && holds_secret(as_clean_line("LINE=" + text + " --password=" + secret)))) {
        abort();
    }
    const std::string word = upper(lstrip(text));
    if (word.starts_with("ABORT") || word.starts_with("SET_AGENT")) {
        return 0;
    }
    process_agent_shell_command(output_file.c_str(), text.c_str());
    std::ifstream in(output_file, std::ios::binary);
    const std::string output{std::istreambuf_iterator<char>(in), {}};
    if (!holds_secret(text) && holds_secret(output)) {
        abort();
    }
    unlink(output_file.c_str());
    ccm_msg_emptying_queues(GlbPcx->ccm);
    return 0;
}
