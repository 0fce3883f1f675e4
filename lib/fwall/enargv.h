// Splits the argument text of a rule-table line into words.
//
//  - Bytes that are neither printable ASCII nor ASCII white space are dropped first, wherever they
//    stand. White space, and commas at the very start of the text only, are skipped.
//  - White space ends an argument. '"' or "'" opens a stretch in which white space and the other
//    quote are ordinary; the same quote closes it. Stretches join with what stands beside them. A
//    quote left open runs to the end.
//  - "\n" gives a newline, "\t" a tab, "\" before anything else that character, inside quotes too.
//    The character after an escape is copied unexamined. An escape that is the first thing of an
//    argument is lost. A "\" at the very end is dropped.
#pragma once

#include <span>

// Splits the terminated `text` (changed in place; null: empty) into at most `slots` - 1 arguments;
// further ones are dropped. Their texts go to `out`, at most `size` bytes with the terminators;
// `argv` points into it and ends with a null entry (nothing is written when `slots` is below 1).
//
// Returns the number of arguments; -1 when `out` is full at a separator or at an opening quote that
// starts an argument; 0 when it is full at a copied character or at the last terminator. In the
// last two cases argv[0] is null.
int enargv(char* text, char** argv, int slots, char* out, int size) noexcept;

// The same over counted bytes; a NUL is one of the bytes that are dropped.
int enargv(std::span<char> text, std::span<char*> argv, std::span<char> out) noexcept;
