#pragma once

#include <string>
#include <vector>

/** Sends control requests to a running stand-in and prints the answers; "-" stands for the lines of standard input. */
int runCtl(const std::string &controlPath, const std::vector<std::string> &requests);
