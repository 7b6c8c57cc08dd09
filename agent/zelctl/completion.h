#pragma once

#include <string>

#include <CLI/CLI.hpp>

/// What bash completes a command line of `app` by: a script that knows all of its verbs and
/// options.
std::string BashCompletion(const CLI::App& app);
