// The data file on the microSD card and its headers: the metadata header (deployment settings,
// calibration, identities), the data-field block (which columns are switched on), the data header
// (the column names) and the upload of logged data.
//
// Every writer serves the console and the file, chosen by a print and a write flag. The file is
// opened, sought to its end, written and closed by each writer, never held open; with microSD
// logging off (app_cfg[APPCFG_MICROSD_ENABLE] 0) the card is never touched.
#pragma once

#include <cstdint>

// Metadata header, then the data-field block and the closing star line. True when a file operation
// failed; the console copy is always complete.
bool print_write_metadata_header(uint32_t printFlg, uint32_t writeFlg);
bool write_metadata_header(void); // file only
bool print_metadata_header(void); // console only

// The data-field block: one line per switchable column with its switch value, each prefixed "// "
// when padFlg is 1. True when a file operation failed.
bool print_write_config_data_fields(uint32_t printFlg, uint32_t writeFlg, uint32_t padFlg);
void print_config_data_fields(void); // console only, no prefix

// The data header: the names of the switched-on columns, tab separated, in the data line's order.
// Writing it stores the file position after it in sys_samp.next_gdata_fptr. True on a file error.
bool print_write_data_header(uint32_t printFlg, uint32_t writeFlg);
bool write_data_header(void); // file only
bool print_data_header(void); // console only

// Console printouts: the metadata header with its data-field block; a short configuration summary;
// the metadata header for the float controller.
void print_all_metadata(void);
void print_config(void);
void get_header(void);

// Sends the data file from sys_samp.next_gdata_fptr to its end on the console, then moves
// next_gdata_fptr to the end and stores sys_samp. 0 when sent, 1 on a file error or with logging off.
uint32_t get_data(void);
