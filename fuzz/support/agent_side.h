// The agent's side of a sealed line, for targets that hand messages to its handlers: an agent set up from an
// INI file in the scratch folder, and messages made from the fuzzer's bytes, which go through conversion,
// policy and dispatch as those of the server do.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/context.h"
#include "channels/messages.h"
#include "messages/head.h"
#include "sandbox.h"

using message_bytes = std::vector<unsigned char>;

inline constexpr uint16_t fuzz_client = 100;
inline constexpr uint32_t fuzz_user = 7;
inline constexpr int fuzz_run = 1;  // number that the presets use

// The fuzzer's bytes, taken from the front. What is not there reads as zero and nothing.
struct byte_source {
    const uint8_t* at;
    const uint8_t* end;

    byte_source(const uint8_t* data, size_t size) : at(data), end(data + size) {}
    size_t left() const { return static_cast<size_t>(end - at); }
    uint8_t byte() { return at < end ? *at++ : 0; }
    std::string_view take(size_t size);
    // A length in one byte, or in three when the first is 255, and as many bytes.
    std::string_view text();
    std::string_view rest() { return take(left()); }
};

// A message that a target may send. `preset` fills what the fuzzer shall not have to find.
struct fuzz_order {
    const char* module;  // that it is for
    const char* type;    // blank-padded to 8
    void (*preset)(message_bytes* message);
};

// The agent. Its log goes nowhere; a line that says that its own answer cannot be converted ends the process,
// as does a process that was really started.
EX_PCX& fuzz_agent();

// A sealed connection of the agent "PEER" that no socket stands behind: its ID.
int fuzz_connect_partner(EX_PCX& pcx);

// A message of `order` by the source: a flag byte, the number of items, and the items. With bit 0 of the
// flags the message behind its head is the rest of the source as it is. An item is a byte that names a field,
// and a text. It fills the field; or, where the field is a distance and bit 7 of the byte is set, the text
// becomes variable data, and distance and length or number of entries point to it. With bit 1 of the flags
// the message ends at a length that two bytes tell, with bit 2 its version is 1.
message_bytes fuzz_message(byte_source* source, const fuzz_order& order);

// Sets a field of the catalogue's name in a message; the field must be there.
void set_field(message_bytes* message, const char* type, const char* field, std::string_view text);
void set_number(message_bytes* message, const char* type, const char* field, int64_t number);
// Variable data behind the message, with `<prefix>_dist` and `<prefix>_len` or `<prefix>_entries`.
void add_data(message_bytes* message, const char* type, const char* prefix, std::string_view data);

// A received message from the server, converted; null when the conversion refuses it.
ccm_msg_t* fuzz_receive(const char* module, const message_bytes& body);
// Forbids to read what lies behind the message in its buffer, or allows it again.
void fuzz_fence(const ccm_msg_t* msg, bool closed);
// A received message, handed to its handler and freed. False when it was refused.
bool fuzz_give(const char* module, const message_bytes& body);

// Messages that wait for the server, as types.
std::vector<std::string> fuzz_answers();

// Before and after each input: closed doors and a server connection; then all queues empty, and the scratch
// folder as it was.
void fuzz_begin();
void fuzz_end();
