// clang-format off
// What the lines of protocol_*.h mean. Each message is declared there once and read twice: here as a packed
// record, in declare_rows.h as the rows of the catalogue.
//
//     MESSAGE(name, bytes)                    begins a message: its fields stand behind the head, without gaps
//     PART(name, bytes)                       begins a record inside messages, which has no head
//     END                                     ends either; `bytes` is its length with every version's fields
//
//     I8 … I64, U16 … U64(field)              numbers
//     CHAR(field), TEXT(field, bytes)         blank-padded text
//     STRING(field, bytes)                    text up to a NUL
//     DIGIT(field)                            a decimal digit as text
//     BYTES(field, bytes)                     binary
//     PAD(member, bytes)                      filler; the catalogue calls each of them "filler"
//     RECORD(field, part)                     a part in its place
//     SIZED_TEXT(field, length, position)     variable data, no member of the record: text or bytes whose length
//     SIZED_BYTES(field, length, position)    and position stand in the fields named; `here`: without a position
//     TABLE(field, part, count, position)     so many parts of one kind
//
// Behind these may follow, in any order: since(version), check("expression"), rules (element_rule), and
// values(n) for a field that has n named values and no check that lists them. Fields are numbered from 1, and
// each named value takes a number behind its field's.
#define MESSAGE(type, bytes)                                      \
    struct MSG_TYPE_##type {                                      \
        static constexpr std::string_view catalogue_name = #type; \
        QX_HEADM header;
#define PART(type, bytes)    \
    struct MSG_TYPE_##type { \
        static constexpr std::string_view catalogue_name = #type;
#define END };
#define I8(field, ...) int8_t field;
#define I16(field, ...) int16_t field;
#define I32(field, ...) int32_t field;
#define I64(field, ...) int64_t field;
#define U16(field, ...) uint16_t field;
#define U32(field, ...) uint32_t field;
#define U64(field, ...) uint64_t field;
#define CHAR(field, ...) char field;
#define DIGIT(field, ...) char field;
#define TEXT(field, bytes, ...) char field[bytes];
#define STRING(field, bytes, ...) char field[bytes];
#define BYTES(field, bytes, ...) unsigned char field[bytes];
#define PAD(member, bytes) char member[bytes];
#define RECORD(field, part, ...) MSG_TYPE_##part field;
#define SIZED_TEXT(field, length, position, ...) VARIABLE(field, length, position)
#define SIZED_BYTES(field, length, position, ...) VARIABLE(field, length, position)
#define TABLE(field, part, count, position, ...) VARIABLE(field, count, position)
// For messages/build.h: notes where the field stands, and its bytes or entries, in the record.
#define VARIABLE(field, number, position)                                            \
    static constexpr auto field = [](auto* record, size_t place, size_t amount) {    \
        record->number = static_cast<decltype(record->number)>(amount);              \
        if constexpr (requires { record->position; })                                \
            record->position = static_cast<decltype(record->position)>(place);       \
    };
