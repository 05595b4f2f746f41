// The error log: Error.txt on the card.
#pragma once

// Appends "\r\n<timestamp> <message>" to Error.txt on the card.
void error_store(const char* message);
