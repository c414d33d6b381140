#pragma once
// What `update` and `play` share about the update: the stall time-out option and the failure report.

#include "flows/GameUpdate.h"

#include <chrono>
#include <string>

class Arguments;

/// --stall-timeout SECONDS (0 turns the guard off), else the default.
std::chrono::seconds stallTimeoutFrom(const Arguments& arguments);

/// "zrv VERB: <why>" and one indented line per bad file and detail, on standard error.
void printUpdateFailure(const std::string& verb, const GameUpdateResult& result);
