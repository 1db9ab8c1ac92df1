// How a message is made that is to be sent: its fixed part as a record, and behind it the variable parts in
// the order in which they are added.
//
//     message_builder<MSG_TYPE_EXRESCMD> result(head);
//     result->ah_idnr = number;
//     result.add(MSG_TYPE_EXRESCMD::report, output);
//
// A message without variable parts needs no builder: what sends a built one takes the record of new_message,
// too.
//
// The parts are those that protocol_*.h declares: a part tells the fields in which its length and its
// position stand. Parts are added in the order of their declaration, because a reader walks them one behind
// the other.
#pragma once

#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "messages/view.h"

inline std::span<const unsigned char> bytes_of(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

// Borrowed bytes of a message to be sent.
struct built_message {
    std::span<const unsigned char> fixed;
    std::span<const unsigned char> behind;

    built_message() = default;
    explicit built_message(std::span<const unsigned char> all) : fixed(all) {}
    explicit built_message(std::string_view all) : fixed(bytes_of(all)) {}
    built_message(std::span<const unsigned char> first, std::span<const unsigned char> rest)
        : fixed(first), behind(rest) {}
    // A fixed part that is the whole message.
    template <class Record>
    requires requires { Record::catalogue_name; }
    built_message(const Record& record)
        : fixed(reinterpret_cast<const unsigned char*>(&record), sizeof record) {}

    size_t size() const { return fixed.size() + behind.size(); }
    // `to` has size() bytes.
    void write(unsigned char* to) const {
        if (!fixed.empty()) {
            memcpy(to, fixed.data(), fixed.size());
        }
        if (!behind.empty()) {
            memcpy(to + fixed.size(), behind.data(), behind.size());
        }
    }
    std::vector<unsigned char> bytes() const {
        std::vector<unsigned char> all(size());
        write(all.data());
        return all;
    }
};

template <class Record>
class message_builder {
  public:
    Record record;  // the fixed part; begins blank, with its head
    Record* operator->() { return &record; }
    const Record* operator->() const { return &record; }

    message_builder(uint16_t mandant, uint32_t usridnr, int version = 1)
        : record(new_message<Record>(mandant, usridnr, version)) {}
    // Client and user are those of another message.
    explicit message_builder(const QX_HEADM& like, int version = 1)
        : message_builder(like.i2Mandant, like.i4UsrIdNr, version) {}

    // The variable field `part`. Without bytes nothing is noted.
    template <class Part>
    void add(Part part, std::span<const unsigned char> bytes) {
        if (!bytes.empty()) {
            part(&record, size(), bytes.size());
            put(bytes);
        }
    }
    template <class Part>
    void add(Part part, std::string_view text) {
        add(part, bytes_of(text));
    }

    // A table of `entries` begins here; put() fills it.
    template <class Part>
    void begin_table(Part part, size_t entries) {
        part(&record, size(), entries);
    }
    void put(std::span<const unsigned char> bytes) {
        behind_.insert(behind_.end(), bytes.begin(), bytes.end());
    }
    void put(std::string_view text) { put(bytes_of(text)); }
    void put(char c) { behind_.push_back(static_cast<unsigned char>(c)); }
    void put_terminated(std::string_view text) {
        put(text);
        put('\0');
    }
    template <class Entry>
    void put_record(const Entry& entry) {
        put({reinterpret_cast<const unsigned char*>(&entry), sizeof entry});
    }
    // Zero bytes until the message has `length`.
    void fill_to(size_t length) { behind_.resize(length - sizeof record); }

    size_t size() const { return sizeof record + behind_.size(); }
    // Valid until the builder changes.
    operator built_message() const {
        return {{reinterpret_cast<const unsigned char*>(&record), sizeof record}, behind_};
    }
    std::vector<unsigned char> bytes() const { return built_message(*this).bytes(); }

  private:
    std::vector<unsigned char> behind_;
};
