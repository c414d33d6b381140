#pragma once
// Reading what the user types: lines of standard input, or prompts on the controlling terminal.

#include <istream>
#include <optional>
#include <string>

/// One line of `input` without its line end; nothing at the end of the input.
std::optional<std::string> readLine(std::istream& input);

/// Shows `prompt` on the controlling terminal and reads one line there, echoed or not. Nothing when there
/// is no terminal or it ends. Interrupting the prompt restores the terminal's echo.
std::optional<std::string> askTerminal(const std::string& prompt, bool echo);
