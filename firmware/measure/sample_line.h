// The sample line in prnBuf: the columns in their fixed order, for the live sample and the "last
// sample" reply.
#pragma once

#include <cstddef>
#include <cstdint>

// Starts an empty line.
void line_begin(void);
// Characters in the line so far.
size_t line_length(void);
// Appends formatted text; what does not fit in prnBuf is cut.
void line_append(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Columns 3 to 16 (battery to external-reference pH) with the given bias readings.
void line_battery_to_phext(float bias_pos, float bias_neg);
// Columns 17 to 20 (counter electrode and currents).
void line_counter_and_currents(void);
// The final tab becomes the line end; a line with no column at all is just the line end.
void line_end(void);

// Formats sampl into prnBuf as one tab-separated line (no output).
void print_sampl(void);
// The FRAM copy of the last sample, formatted and sent as it stands (no line end).
void send_last_sample(void);
// The time column's millisecond form of RTC seconds, "%13llu" wide (the board's printf has no 64-bit
// conversions).
void format_ms_timestamp(char* text, size_t size, uint32_t rtc_seconds);
// Sends prnBuf as it stands; returns the bytes written.
int print_sampBuf(void);
