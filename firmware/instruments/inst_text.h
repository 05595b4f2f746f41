// The text an instrument leaves for the sample line: always exactly as many tab-separated fields as
// its column group in the data header names, empty where the instrument failed or left a value out,
// so the columns of a data file stay aligned whatever the instruments do. Also the small parsing
// helpers the instrument drivers share for their reply lines.
#pragma once

#include <cstddef>
#include <cstdint>

// Most fields any instrument reply is split into (the pico-pH's reply has 21).
constexpr uint32_t INST_MAX_FIELDS = 24;

// Writes `fields` empty fields (fields - 1 tabs) into buf.
void inst_blank_fields(char* buf, size_t size, uint32_t fields);
// Splits `line` in place at any of the characters in `seps`, runs of them counting as one
// separator, leading and trailing ones ignored. Returns the number of fields; a line with more than
// `max` returns max + 1, the extra ones not stored.
uint32_t inst_split(char* line, const char* seps, char** fields, uint32_t max);
// Splits `line` into exactly `count` fields (false otherwise), each without its padding blanks.
bool inst_split_exact(char* line, const char* seps, char** fields, uint32_t count);
// Joins fields with tabs into buf; a null field is written empty. False when buf is too small (buf
// then holds empty fields, so the line stays aligned).
bool inst_join_fields(char* buf, size_t size, const char* const* fields, uint32_t count);
// A whole decimal number (sign, digits, point, exponent), finite; blanks around it allowed.
bool inst_is_number(const char* text);
// A whole decimal integer, optionally signed; blanks around it allowed.
bool inst_is_integer(const char* text);
// Printable ASCII only (blanks included), so a field cannot carry line noise into the data file.
bool inst_is_printable(const char* text);
// The text without its leading and trailing blanks (modified in place: the trailing ones are cut).
char* inst_trim(char* text);
