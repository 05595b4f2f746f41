// Handlers of the console words that read and change the logger's settings: the data-output
// switches, sampling period, clock, data file name, record layout preset, card storage, sample
// number and streaming. They read their arguments from rx0.buf and print their answers.
#pragma once

#include <cstdint>

// Switch setters take the character after the ",s" selector ('1' or 1 turns the switch on);
// getters print the switch with "%u"; test routines take the test argument.
void cmd_set_vtherm(uint8_t arg);
void cmd_get_vtherm(void);
void cmd_test_vtherm(uint8_t arg);
void cmd_set_vtherm_std(uint8_t arg);
void cmd_get_vtherm_std(void);
void cmd_test_vtherm_std(uint8_t arg);
void cmd_set_tempc(uint8_t arg);
void cmd_get_tempc(void);
void cmd_test_tempc(uint8_t arg);
void cmd_set_vrsi(uint8_t arg);
void cmd_get_vrsi(void);
void cmd_test_vrsi(uint8_t arg);
void cmd_set_vrsi_std(uint8_t arg);
void cmd_get_vrsi_std(void);
void cmd_test_vrsi_std(uint8_t arg);
void cmd_set_vrse(uint8_t arg);
void cmd_get_vrse(void);
void cmd_test_vrse(uint8_t arg);
void cmd_set_vrse_std(uint8_t arg);
void cmd_get_vrse_std(void);
void cmd_test_vrse_std(uint8_t arg);
void cmd_set_vk(uint8_t arg);
void cmd_get_vk(void);
void cmd_test_vk(uint8_t arg);
void cmd_set_vk_std(uint8_t arg);
void cmd_get_vk_std(void);
void cmd_test_vk_std(uint8_t arg);
void cmd_set_ik(uint8_t arg);
void cmd_get_ik(void);
void cmd_test_ik(uint8_t arg);
void cmd_set_ib(uint8_t arg);
void cmd_get_ib(void);
void cmd_test_ib(uint8_t arg);
void cmd_set_vbat(uint8_t arg);
void cmd_get_vbat(void);
void cmd_test_vbat(uint8_t arg);
void cmd_set_timestamp(uint8_t arg);
void cmd_get_timestamp(void);
void cmd_test_timestamp(uint8_t arg);
void cmd_set_cfg_sampnum(uint8_t arg);
void cmd_get_cfg_sampnum(void);
void cmd_set_biaspos(uint8_t arg);
void cmd_get_biaspos(void);
void cmd_test_biaspos(uint8_t arg);
void cmd_set_biasneg(uint8_t arg);
void cmd_get_biasneg(void);
void cmd_test_biasneg(uint8_t arg);

// Sample number: print it, or reset it to 0.
void cmd_test_sampnum(void);
void cmd_set_sampnum(void);

// Streaming: the session samples every n seconds until a sleep word.
void cmd_test_sample(uint32_t n);

void cmd_set_period(void);
void cmd_get_period(void);
void cmd_set_time(void);
void cmd_get_time(void);
void cmd_set_filename(void);
void cmd_get_filename(void);
void cmd_set_config(void);
void cmd_help_config(void);
void cmd_set_store(void);
void cmd_get_store(void);
void cmd_filesystem(void);
