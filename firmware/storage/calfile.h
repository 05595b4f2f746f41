// Calibration coefficient files of the pH sensor: the 20-line ".cal" text (one "key,value" entry a
// line, read by position) loaded into sys_data from a received copy in memory or from the fixed file
// on the microSD card, and shown again on the console in the same format or as one record line.
//
// Both readers only change sys_data in RAM; storing it in the EEPROM is left to the caller.
#pragma once

#include <cstdint>

#include "storage/fatfs/ff.h"

// The card's calibration file.
inline constexpr char CAL_CARD_FILENAME[] = "DF384.cal";
// Entries of a calibration file.
inline constexpr uint32_t CAL_LINE_COUNT = 20;
// Longest line egets copies from a text in memory; its line buffer holds one more for the NUL.
inline constexpr uint32_t CAL_MEM_LINE_MAX = 32;
// Bytes efgets reads from the card for one line; its line buffer holds one more for the NUL.
inline constexpr uint32_t CAL_CARD_LINE_MAX = 24;
// Longest texts kept in sys_data: serial numbers, dates, the file name.
inline constexpr uint32_t CAL_SN_MAX = 7;
inline constexpr uint32_t CAL_DATE_MAX = 10;
inline constexpr uint32_t CAL_FILENAME_MAX = 31;

// Set while a file being received is a calibration file: the receiver then hands it to
// set_cal_filename and parse_cal_packet.
extern uint32_t calFileFlg;

// Keeps the received file's name (at most 31 characters) in sys_data.cal_filename.
void set_cal_filename(const char* filename);
// Reads the twenty entries from a calibration text in memory (len bytes; a NUL ends it earlier) and
// stores all of them in sys_data. Returns 0; or, when a line lacks its key or a readable value (a
// finite number for the coefficients), prints which line and returns its number (1..20), leaving
// sys_data untouched.
uint32_t parse_cal_packet(const char* buf, uint32_t len);
// Copies the next line of [buf, end) into line (CAL_MEM_LINE_MAX + 1 bytes): the characters up to a
// "\n" (or a NUL, which ends the text), "\r" becoming a terminator. A line longer than 32 characters
// is cut and the rest of it skipped. Returns the position after the "\n".
const char* egets(char* line, const char* buf, const char* end);
// Reads the next line of an open file into line (CAL_CARD_LINE_MAX + 1 bytes), one byte at a time:
// at most 24 bytes, "\r" becomes a terminator, "\n" a terminator that ends the line. A longer line
// is cut and its remainder is the next line. Returns the bytes read (0 at the end of the file).
uint32_t efgets(FIL* fil, char* line);

// Loads CAL_CARD_FILENAME from the card, echoing each line and then what was read. This path keeps
// two gaps: the ISFET and ISE numbers share one holder (isfet_SN gets the ISE value, ise_SN is not
// touched), and the PT date, the k0 date and the three k0 values are shown but not stored. All or
// nothing like parse_cal_packet: 0 when stored, 1 when the file is missing or refused.
uint32_t import_pH_sensor_cal_coeff(void);
// Prints the stored calibration as a calibration file, ready to be saved from the terminal.
void export_pH_sensor_cal_coeff(void);
// Prints the stored calibration as one tab-separated record for the float controller.
void get_pH_sensor_cal_coeff(void);
