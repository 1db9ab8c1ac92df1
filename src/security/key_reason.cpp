#include "security/key_reason.h"

#include "security/key_store.h"

namespace {

struct reason_row {
    int number;
    const char* text;
};

constexpr reason_row reasons[] = {
    {KM_MEMORY, "out of memory"},
    {KM_RANGE, "a value is out of range"},
    {KM_NOT_INITIALIZED, "the key manager is not open"},
    {KM_NOT_IMPLEMENTED, "a key store plug-in is named, and keys are kept in a file only"},
    {KM_CONVERT, "a key cannot be converted"},
    {KM_ENCRYPT, "a key cannot be enciphered"},
    {KM_DECRYPT, "the data cannot be deciphered: it was made with another password or company key"},
    {KM_LIBRARY, "a key store plug-in is named, and keys are kept in a file only"},
    {KM_ENTRY_POINT, "a key store plug-in is named, and keys are kept in a file only"},
    {KM_BUFFER_SMALL, "a key is longer than it may be"},
    {KM_WRONG_DATA, "the data is damaged, or made for another agent"},
    {KM_HASH, "the hash is wrong: the data is damaged, or made with another company key"},
    {KM_UNEXPECTED, "no key is taken at first contact"},
    {KM_OPEN, "the file cannot be opened: check that it is there, and its rights"},
    {KM_READ, "the file cannot be read, or is larger than a megabyte"},
    {KM_PLUGIN_HASH, "it names another key store plug-in"},
    {KM_PASSWORD, "the password is missing or longer than 32 bytes"},
    {KM_NO_VALUE, "a value is missing"},
    {KM_NO_PLUGIN, "there is no key store plug-in"},
    {KM_NAME_UNKNOWN, "there is no key of that name"},
    {KM_VERSION, "it is no initial package, or one of another version"},
    {KM_WRITE, "the key store cannot be written"},
    {KM_PRIMES, "no numbers for a key exchange follow from the company key"},
    {KM_KEY_EXISTS, "a key is held already"},
};

}  // namespace

const char* km_reason_text(int number) {
    for (const reason_row& row : reasons) {
        if (row.number == number) {
            return row.text;
        }
    }
    return "an unknown error";
}
