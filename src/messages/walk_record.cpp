// One pass over a message along its catalogue entry, in the order of the elements. The walk's place
// (`buffer.offset`) moves over the fixed part; a field with a relation stands elsewhere (`value_offset`), at
// a distance that an earlier field gave, and takes no room at the walk's place. What later elements may refer
// to, the value, count and place of each element so far, is kept in a matrix for each record; a reference
// that names nothing yet is a warning. Records within records recurse, with a matrix of their own, and go on
// where they ended.
//
// No byte is read or swapped before it is known to stand inside the message, with positions as 64-bit numbers
// that cannot wrap; a message may end between two elements of any record, and the rest of that record is then
// absent, not wrong. Integers are swapped in place and each once, so that a place or a length must be read
// from the side of the swap that is in host order: before it on the way out, behind it on the way in.
#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>

#include "base/message_numbers.h"
#include "messages/checks.h"
#include "messages/head.h"
#include "messages/walk_state.h"

namespace {

constexpr size_t matrix_inline_length = 80;  // above the longest record of the catalogue

// Ends the walk of one record without a fault: the message stops here.
constexpr int walk_message_ended = 1;

// One record's values so far, by index of its elements; -1 where an element did not come.
struct matrix_t {
    size_t length;
    int32_t* ivals;
    int32_t* inums;
    int32_t* ipos;
};

// One record on its way.
struct level_t {
    const element_array_t* definition;
    const element_references* references;  // null for tables outside the catalogue
    matrix_t matrix;
    bool variableDataOnEnd;  // fields with a position of their own take no room here
    int64_t structureSize;
    int64_t value_offset;
    int64_t int_val_index;
};

// Fails when `size` bytes at `position` do not stand inside the message.
int check_element_overflow(internal_stack_t* stack, int64_t position, int64_t size) {
    if (size >= 0 && position >= 0 && position <= stack->buffer.size &&
        size <= stack->buffer.size - position) {
        [[likely]] return walk_accepted;
    }
    return fail_overflow(stack, position, size);
}

// Index of the element that a negative reference names; the matrix's length when it has not come. In the
// catalogue the place is known, and only whether the element came must be looked at.
size_t search_index(const level_t* level, size_t index, int32_t reference,
                    uint8_t element_references::*which) {
    const matrix_t& matrix = level->matrix;
    if (level->references != nullptr) {
        size_t known = level->references[index].*which;
        return known < index && matrix.inums[known] >= 0 ? known : matrix.length;
    }
    for (size_t i = 0; i < matrix.length; ++i) {
        if (matrix.inums[i] == -static_cast<int64_t>(reference)) {
            return i;
        }
    }
    return matrix.length;
}

template <class Integer>
uint64_t load(const unsigned char* bytes) {
    Integer value;
    memcpy(&value, bytes, sizeof value);
    return value;
}

uint64_t read_integer(const unsigned char* bytes, int32_t size, byte_order order) {
    if (std::endian::native == std::endian::little && order == order_little) [[likely]] {
        switch (size) {
            case 1:
                return *bytes;
            case 2:
                return load<uint16_t>(bytes);
            case 4:
                return load<uint32_t>(bytes);
            case 8:
                return load<uint64_t>(bytes);
            default:
                break;
        }
    }
    uint64_t value = 0;
    for (int32_t i = 0; i < size; ++i) {
        value |= static_cast<uint64_t>(bytes[order == order_little ? i : size - 1 - i]) << (8 * i);
    }
    return value;
}

void visit(const internal_stack_t* stack, walk_event event, const msg_el* element, const unsigned char* data,
           int64_t size, int64_t repetition) {
    const walk_visitor* visitor = stack->request->visitor;
    if (visitor == nullptr) {
        [[likely]] return;
    }
    byte_order order = stack->request->check == check_to_lan ? stack->buffer.order : stack->request->to_order;
    if ((element->rule & rule_no_touch) != 0) {
        order = stack->request->check == check_to_lan ? stack->request->to_order : stack->buffer.order;
    }
    walk_field field = {event,
                        element,
                        data,
                        static_cast<size_t>(size),
                        static_cast<int>(repetition),
                        element->dim != 0,
                        order == order_big};
    visitor->visit(visitor->context, field);
}

void evaluate_checks(internal_stack_t* stack, const unsigned char* data, int64_t size) {
    char path[512];
    dump_path(stack, path, sizeof path);
    stack->errorsFound +=
        readAndEvaluateStream(stack->ctx, stack->current, data, static_cast<size_t>(size), path);
}

// Swaps one integer between the orders. Outgoing, the value that counts is the one before the swap, incoming
// the one behind it: lengths and positions are read in host order both ways. The swap is made at the walk's
// place, which for the repetitions of an array is not the place that is read.
int process_integer(internal_stack_t* stack, int64_t value_offset, const msg_el* element, uint64_t* value) {
    if (element->size < 1 || element->size > 8 || value_offset < 0 || value_offset > stack->buffer.size ||
        element->size > stack->buffer.size - value_offset) {
        [[unlikely]] return fail_overflow(stack, value_offset, element->size);
    }
    unsigned char* bytes = stack->buffer.data + value_offset;
    byte_order to_order = stack->request->to_order;
    bool swap = element->size > 1 && (element->rule & rule_no_touch) == 0 && stack->buffer.order != to_order;
    if (!swap) {
        *value = read_integer(bytes, element->size, to_order);
        return walk_accepted;
    }
    *value = read_integer(bytes, element->size,
                          stack->request->check == check_to_lan ? to_order : stack->buffer.order);
    if (element->size > stack->buffer.size - stack->buffer.offset) {
        return fail_overflow(stack, stack->buffer.offset, element->size);
    }
    if ((stack->request->iflags & walk_swap_copy) == 0) {
        unsigned char* place = stack->buffer.data + stack->buffer.offset;
        std::reverse(place, place + element->size);
    }
    return walk_accepted;
}

// What later elements see of a value: 4 bytes as they are, 2 bytes with their sign, of all others the lowest
// byte with its sign.
int32_t reference_value(uint64_t value, int32_t size) {
    if (size == 4) {
        return static_cast<int32_t>(value);
    }
    if (size == 2) {
        return static_cast<int16_t>(value);
    }
    return static_cast<int8_t>(value);
}

int walk_integer(internal_stack_t* stack, level_t* level, size_t index, int64_t repetition,
                 int64_t* element_size) {
    const msg_el* element = stack->current;
    uint64_t value = 0;
    if (process_integer(stack, level->value_offset, element, &value) == walk_failed) {
        [[unlikely]] return walk_failed;
    }
    if (stack->checks && element->chkptr != 0 && (element->rule & rule_no_touch) == 0) {
        evaluate_checks(stack, reinterpret_cast<const unsigned char*>(&value), element->size);
    }
    if (static_cast<int64_t>(index) > level->int_val_index) {
        level->matrix.ivals[index] = reference_value(value, element->size);
        level->int_val_index = static_cast<int64_t>(index);
    }
    *element_size = element->size;
    visit(stack, walk_value, element, stack->buffer.data + level->value_offset, element->size, repetition);
    return walk_accepted;
}

// Size of a text or binary field by the rules of its type.
int get_string_size(internal_stack_t* stack, const level_t* level, size_t index, int64_t* size) {
    const msg_el* element = stack->current;
    int64_t position = level->value_offset;
    *size = element->size;
    char path[512];
    if (element->size < 0) {
        size_t found = search_index(level, index, element->size, &element_references::size);
        if (found >= index) {
            [[unlikely]] return fail(stack, number_walk_size_missing, "%d|%s|%u|%s|", static_cast<int>(found),
                                     type2string(element->type), shown(position),
                                     dump_path(stack, path, sizeof path));
        }
        if (level->matrix.inums[found] < 0) {
            [[unlikely]] return fail(stack, number_walk_size_without_value, "%d|%s|%u|%s|",
                                     level->matrix.inums[found], type2string(element->type), shown(position),
                                     dump_path(stack, path, sizeof path));
        }
        *size = level->matrix.ivals[found];
    }
    bool terminated = (element->rule & rule_terminated) != 0;
    if (!terminated && element->type != el_text_ended) {
        return walk_accepted;
    }
    if (position < 0 || position > stack->buffer.size) {
        [[unlikely]] return fail_overflow(stack, position, element->size);
    }

    const unsigned char* text = stack->buffer.data + position;
    int64_t remaining = stack->buffer.size - position;
    int64_t searched = terminated ? remaining : std::min<int64_t>(std::max(element->size, 0), remaining);
    const void* nul = searched > 0 ? memchr(text, 0, static_cast<size_t>(searched)) : nullptr;
    if (nul != nullptr) {
        *size = static_cast<const unsigned char*>(nul) - text + 1;  // the terminator belongs to the field
        return walk_accepted;
    }
    if (terminated) {
        [[unlikely]] return fail(stack, number_walk_no_terminator, "%s|%u|%s|", type2string(element->type),
                                 shown(position), dump_path(stack, path, sizeof path));
    }
    *size = searched;
    return walk_accepted;
}

int walk_bytes(internal_stack_t* stack, level_t* level, size_t index, int64_t repetition,
               int64_t* element_size) {
    const msg_el* element = stack->current;
    int64_t size = 0;
    if (get_string_size(stack, level, index, &size) == walk_failed) {
        return walk_failed;
    }
    bool is_text = element->type != el_binary && element->type != el_binary_sized;
    if ((element->size < 0 || element->type == el_text_ended) &&
        check_element_overflow(stack, level->value_offset, size) == walk_failed) {
        return walk_failed;
    }
    // A fixed text that the message's end cuts is only found out by the next element.
    int64_t position = level->value_offset;
    if (position < 0 || position > stack->buffer.size) {
        [[unlikely]] return fail_overflow(stack, position, size);
    }
    int64_t there = std::min(size, stack->buffer.size - position);
    const unsigned char* bytes = stack->buffer.data + position;
    if (stack->checks && is_text && element->chkptr != 0 && (element->rule & rule_no_touch) == 0) {
        evaluate_checks(stack, bytes, there);
    }
    *element_size = size;
    visit(stack, walk_value, element, bytes, there, repetition);
    return walk_accepted;
}

int walk_struct(internal_stack_t* stack, const level_t* level, const msgtab_el* structure, int64_t repetition,
                int64_t* element_size) {
    const msg_el* element = stack->current;
    if (structure == nullptr) {
        [[unlikely]] return fail_type(stack, number_walk_no_record, element->structure);
    }
    if (element->relation < 0 && (level->value_offset < 0 || level->value_offset > stack->buffer.size)) {
        [[unlikely]] return fail_overflow(stack, level->value_offset, element->size);
    }
    visit(stack, walk_struct_begin, element, nullptr, 0, repetition);
    int64_t offset = stack->buffer.offset;
    int result = process_elements(stack, structure, (element->rule & rule_displaced) != 0, element_size);
    stack->buffer.offset = offset;
    stack->current = element;
    if (result == walk_failed) {
        [[unlikely]] return walk_failed;
    }
    visit(stack, walk_struct_end, element, nullptr, 0, repetition);
    return walk_accepted;
}

// One repetition of the current element.
int walk_repetition(internal_stack_t* stack, level_t* level, size_t index, const msgtab_el* structure,
                    int64_t repetition, int64_t* element_size) {
    const msg_el* element = stack->current;
    switch (element->type) {
        case el_signed:
        case el_unsigned:
            return walk_integer(stack, level, index, repetition, element_size);
        case el_text_padded:
        case el_text_sized:
        case el_text_ended:
        case el_zoned:
        case el_binary:
        case el_binary_sized:
            return walk_bytes(stack, level, index, repetition, element_size);
        case el_struct:
            return walk_struct(stack, level, structure, repetition, element_size);
        case el_filler:
        case el_array:
            *element_size = element->size;
            return element->size < 0 ? check_element_overflow(stack, level->value_offset, element->size)
                                     : walk_accepted;
        case el_const:
            return fail_type(stack, number_walk_bad_type, type2string(element->type));
        default:
            return fail_type(stack, number_walk_unknown_type, type2string(element->type));
    }
}

void set_value_offset(internal_stack_t* stack, level_t* level, size_t index) {
    const msg_el* element = stack->current;
    if (element->relation == 0) {
        level->value_offset = stack->buffer.offset;
        return;
    }
    size_t found = element->relation < 0
                       ? search_index(level, index, element->relation, &element_references::relation)
                       : level->matrix.length;
    if (found < index) {
        level->value_offset = level->matrix.ivals[found];
        return;
    }
    char path[512];
    warn(stack, number_walk_bad_position, "%d|%u|%s|", element->relation, shown(stack->buffer.offset),
         dump_path(stack, path, sizeof path));
}

int64_t get_max_dimension(internal_stack_t* stack, const level_t* level, size_t index,
                          const msg_el** counter) {
    const msg_el* element = stack->current;
    *counter = element;
    if (element->dim >= 0) {
        return element->dim == 0 ? 1 : element->dim;
    }
    size_t found = search_index(level, index, element->dim, &element_references::dim);
    if (found < index) {
        *counter = &level->definition->elements[found];
        return level->matrix.ivals[found];
    }
    char path[512];
    warn(stack, number_walk_bad_count, "%d|%u|%s|", element->dim, shown(stack->buffer.offset),
         dump_path(stack, path, sizeof path));
    return 1;
}

void note_content(internal_stack_t* stack, const level_t* level, size_t index) {
    size_t found = search_index(level, index, stack->current->size, &element_references::size);
    if (found == level->matrix.length) {
        return;
    }
    stack->request->info->content_field = stack->buffer.data + stack->buffer.offset;
    stack->request->info->size_field = stack->buffer.data + level->matrix.ipos[found];
}

int walk_repetitions(internal_stack_t* stack, level_t* level, size_t index, int64_t max_dimension,
                     const msg_el* counter) {
    const msg_el* element = stack->current;
    const msgtab_el* structure =
        element->type == el_struct ? element_structure(stack->table, element) : nullptr;
    for (int64_t repetition = 0; repetition < max_dimension; ++repetition) {
        bool ended = stack->buffer.offset >= stack->buffer.size;
        if (ended) {
            [[unlikely]] warn(stack, number_walk_table_cut, "%.8s.%s|%d|%d|",
                              reinterpret_cast<const char*>(stack->buffer.data), counter->name,
                              static_cast<int>(max_dimension), static_cast<int>(stack->buffer.size));
        }
        int64_t element_size = 0;
        if (walk_repetition(stack, level, index, structure, repetition, &element_size) == walk_failed) {
            return walk_failed;
        }
        if ((element->rule & rule_content) != 0 && (stack->request->iflags & walk_find_content) != 0) {
            note_content(stack, level, index);
        }
        if (!level->variableDataOnEnd || element->relation >= 0 || element->dim != 0) {
            level->structureSize += element_size;
            stack->buffer.offset += element_size;
            // With a constant number of repetitions all are read at the first one's place; that must stay.
            if (element->dim < 0 && element->type != el_struct) {
                level->value_offset = stack->buffer.offset;
            }
        }
        // Neither a repetition behind the end nor one that took no bytes would differ from the next.
        if (ended || element_size == 0) {
            break;
        }
    }
    return walk_accepted;
}

int walk_element(internal_stack_t* stack, level_t* level, size_t index) {
    const msg_el* element = &level->definition->elements[index];
    stack->current = element;
    if (stack->buffer.offset == stack->buffer.size) {
        return walk_message_ended;
    }
    if (element->version > stack->message_version) {
        return walk_accepted;
    }
    level->matrix.inums[index] = element->count;
    level->matrix.ipos[index] = static_cast<int32_t>(stack->buffer.offset);
    set_value_offset(stack, level, index);
    const msg_el* counter = nullptr;
    int64_t max_dimension = get_max_dimension(stack, level, index, &counter);
    if (stack->buffer.offset > stack->buffer.size) [[unlikely]] {
        char path[512];
        return fail(stack, number_walk_too_short, "%u|%u|%s|", shown(stack->buffer.offset),
                    shown(stack->buffer.size), dump_path(stack, path, sizeof path));
    }
    if (max_dimension <= 0 && stack->request->visitor == nullptr) {
        return walk_accepted;
    }

    int64_t currentOffset = stack->buffer.offset;
    bool displaced =
        element->type == el_struct && element->relation < 0 && (element->rule & rule_displaced) != 0;
    if (displaced && max_dimension > 0) {
        if (level->value_offset < 0 || level->value_offset > stack->buffer.size) {
            [[unlikely]] return fail_overflow(stack, level->value_offset, element->size);
        }
        stack->buffer.offset = level->value_offset;
    }
    if (element->dim != 0) {
        visit(stack, walk_table_begin, element, nullptr, 0, max_dimension);
    }
    int result = walk_repetitions(stack, level, index, max_dimension, counter);
    if (result != walk_failed && element->dim != 0) {
        visit(stack, walk_table_end, element, nullptr, 0, max_dimension);
    }
    if (displaced) {
        stack->buffer.offset = currentOffset;
    }
    return result;
}

// Whether a field is one of fixed size at the current place: nearly all are.
bool is_plain(const msg_el* element) {
    bool fixed = element->relation == 0 && element->dim == 0 && element->size > 0;
    switch (element->type) {
        case el_signed:
        case el_unsigned:
            return fixed && element->size <= 8;
        case el_text_padded:
        case el_binary:
        case el_zoned:
        case el_filler:
            return fixed;
        default:
            return false;
    }
}

// The steps of walk_element for a plain field, without those that cannot matter to it.
int walk_plain_element(internal_stack_t* stack, level_t* level, size_t index) {
    const msg_el* element = &level->definition->elements[index];
    int64_t offset = stack->buffer.offset;
    if (offset == stack->buffer.size) {
        return walk_message_ended;
    }
    if (element->version > stack->message_version) {
        return walk_accepted;
    }
    if (offset > stack->buffer.size ||
        (element->type <= el_unsigned && element->size > stack->buffer.size - offset)) {
        return walk_element(stack, level, index);  // which finds the fault and names it
    }
    level->matrix.inums[index] = element->count;
    level->matrix.ipos[index] = static_cast<int32_t>(offset);
    if (element->type <= el_unsigned) {
        uint64_t value = read_integer(stack->buffer.data + offset, element->size, order_little);
        level->matrix.ivals[index] = reference_value(value, element->size);
        level->int_val_index = static_cast<int64_t>(index);
    }
    level->structureSize += element->size;
    stack->buffer.offset = offset + element->size;
    return walk_accepted;
}

}  // namespace

int process_elements(internal_stack_t* stack, const msgtab_el* entry, bool variableDataOnEnd,
                     int64_t* structureSize) {
    if (stack->parent_list.level == parent_list_size) {
        return fail_type(stack, number_walk_no_record, entry->name);
    }
    stack->parent_list.entries[stack->parent_list.level++] = {entry->name, stack->message_version};

    size_t length = entry->msg_def.length;
    int32_t cells[3 * matrix_inline_length];
    std::unique_ptr<int32_t[]> many;
    int32_t* start = cells;
    if (length > matrix_inline_length) {
        many = std::make_unique<int32_t[]>(3 * length);
        start = many.get();
    }
    std::fill_n(start, 3 * length, -1);
    level_t level = {&entry->msg_def,
                     catalogue_references(&entry->msg_def),
                     {length, start, start + length, start + 2 * length},
                     variableDataOnEnd,
                     0,
                     stack->buffer.offset,
                     -1};
    int result = walk_accepted;
    for (size_t index = 0; index < length && result == walk_accepted; ++index) {
        result = stack->plain && is_plain(&entry->msg_def.elements[index])
                     ? walk_plain_element(stack, &level, index)
                     : walk_element(stack, &level, index);
    }
    *structureSize = level.structureSize;
    --stack->parent_list.level;
    return result == walk_failed ? walk_failed : walk_accepted;
}
