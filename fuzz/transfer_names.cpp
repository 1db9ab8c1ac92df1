// Any text as control stream, and as masks and names of all types of file systems.
#include <cstdlib>
#include <string>

#include "transfer/control_stream.h"
#include "transfer/file_names.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string value;
    int number = 0;
    unsigned char bytes[64];
    size_t length = sizeof bytes;
    cbsGetString(text, "OID", &value);
    cbsGetInt(text, "OID", &number);
    cbsGetByteStream(text, "RST", bytes, &length);
    ControlStream own;
    const std::string key = "K";
    if (cbsPutString(&own, key, text) == 0 && (cbsGetString(own, key, &value) != 0 || value != text)) {
        abort();
    }
    const size_t first = text.find('\n');
    const size_t second = first == std::string::npos ? first : text.find('\n', first + 1);
    if (second != std::string::npos) {
        ftxerr err;
        const std::string mask = text.substr(2, first < 2 ? 0 : first - 2);
        const std::string source = text.substr(first + 1, second - first - 1);
        const std::string target = text.substr(second + 1);
        fngConvert(mask, source, target, &value, 4096, data[0] % 11, data[1] % 11, &err);
        fngConvertDirectory(mask, source, target, &value, 4096, data[0] % 3, data[1] % 3, &err);
        if (value.size() > (size > 4096 ? size : 4096)) {
            abort();
        }
    }
    return 0;
}
