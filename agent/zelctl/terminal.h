#pragma once

#include <filesystem>
#include <string>
#include <vector>

// What zelctl needs of the system it runs on.

/// The command line after the program's name, each argument as it stands: bytes off Windows, WTF-8
/// on Windows.
std::vector<std::string> ProgramArguments(int argc, char** argv);

/// An argument as the name of a file on this machine.
std::filesystem::path LocalPath(const std::string& argument);

/// Makes standard input, output and error carry bytes as they are; a console takes them as UTF-8.
void PrepareStreams();

bool IsInputTerminal();
bool IsOutputTerminal();
bool IsErrorTerminal();

/// Asks on the terminal, without echo. Throws std::runtime_error when nothing could be read.
std::string PromptPassword(const std::string& question);
