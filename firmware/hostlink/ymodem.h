// YMODEM file transfer on the console: receive a file to the card (or a calibration file into
// memory for the calibration reader), and send a file from the card.
//
// The protocol: 128-byte (SOH) and 1024-byte (STX) blocks, each with its block number and that
// number's complement, checked with CRC-16 (polynomial 0x1021, initial value 0, high byte first).
// The receiver asks with 'C'; block 0 carries "name\0size ..." and an empty block 0 ends the batch.
// EOT ends a file. Two CANs from the peer, or Ctrl-C typed while the receiver waits for a block,
// cancel a transfer; the board cancels with two CANs.
//
// Receiving (ymodem_receive):
// - The operator has YMODEM_START_WAIT_S seconds to start the sender: a 'C' goes out every second.
//   Ctrl-C typed meanwhile cancels.
// - Inside a file a block must begin within 10 s; a damaged block is NAKed once the line is quiet;
//   ten errors in a row cancel the transfer. A repeated block (the sender missed the ACK) is
//   acknowledged and dropped; a block out of sequence cancels. The first EOT is answered with NAK,
//   the repeated one with ACK.
// - YMODEM_TO_CARD needs the mounted card (microSD_flg); without it nothing is received. Each file
//   of the batch goes to the card's top directory under its received name without any path. A name
//   that is not 8.3 is shortened: the part before the last dot cut to 8 characters, the part after
//   it to 3, characters a short name cannot hold replaced by '_'. An existing file of that name is
//   replaced. The file is cut to the size block 0 announced; a sender that gives no size leaves the
//   padding of the last block in the file. A file whose name ends in ".cal" (any case) and that
//   fits the memory buffer is also loaded into sys_data and stored, as the memory mode does.
// - YMODEM_TO_MEMORY keeps one file of at most YMODEM_MEMORY_MAX bytes in a buffer (a larger
//   announced size is refused at block 0, the batch cancelled). With calFileFlg set, or a name
//   ending in ".cal", the name goes to set_cal_filename, the text to parse_cal_packet, and sys_data
//   is stored. A second file in the batch is refused.
// - calFileFlg is cleared when the receive ends, whatever the outcome.
// - A cancelled or failed transfer removes the partial file it was writing from the card. A block
//   cut short that holds CAN CAN is the sender's cancel (lrzsz sends its CANs wherever it is).
// - Afterwards (also after a cancel) the line is let go quiet, pending input is discarded, echo is
//   turned back on and one line tells the outcome; the caller prints its prompt as usual.
#pragma once

#include <cstdint>

inline constexpr uint32_t YMODEM_TO_CARD = 0;   // received file written to the card
inline constexpr uint32_t YMODEM_TO_MEMORY = 1; // received file kept in memory (calibration files)

// Largest file the memory mode keeps (a calibration file is well under 1 KiB).
inline constexpr uint32_t YMODEM_MEMORY_MAX = 2048;
// Seconds the receiver and the sender wait for the other side to start.
inline constexpr uint32_t YMODEM_START_WAIT_S = 60;

// Results below zero.
inline constexpr int32_t YMODEM_CANCELLED = -1; // Ctrl-C, or CAN CAN from the peer
inline constexpr int32_t YMODEM_TIMEOUT = -2;   // the peer did not start or went silent
inline constexpr int32_t YMODEM_FAILED = -3;    // refused, too many errors, out of sequence, card error

// Receives one batch. Returns the bytes of the (first) file received, or a negative value when the
// transfer was cancelled or failed.
int32_t ymodem_receive(uint32_t mode);
// Sends the named file from the card; "ys" sends the data file (sys_data.fileName). Block 0 carries
// the name, the size and the time of sending; the data goes in 1024-byte blocks (128 for a last
// piece that fits), the last one padded with 0x1A. The receiver has YMODEM_START_WAIT_S seconds to
// ask with 'C'; a block is sent up to ten times. The ACK of the closing empty block 0 is awaited
// one second only: rb flushes the line as it exits and can lose it. 0 on success, negative on
// failure.
int32_t ymodem_send(const char* name);

void cmd_ymodem_send(uint32_t arg);
void cmd_ymodem_receive(void);
