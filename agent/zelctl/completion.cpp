#include "agent/zelctl/completion.h"

namespace {

constexpr char kHead[] = R"bash(# Completion for bash, written by "zelctl completion bash".

# The verbs and options that may follow these verbs.
_zelctl_words() {
  case "$1" in
)bash";

constexpr char kFoot[] = R"bash(  esac
}

_zelctl() {
  local verbs='' word
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ $word != -* && " $(_zelctl_words "$verbs") " == *" $word "* ]] && verbs+=" $word"
  done
  mapfile -t COMPREPLY < <(compgen -W "$(_zelctl_words "$verbs")" -- "${COMP_WORDS[COMP_CWORD]}")
}

# What is neither a verb nor an option is a file's name.
complete -o default -F _zelctl zelctl
)bash";

bool IsAny(const CLI::App*) {
  return true;
}

std::string OptionsOf(const CLI::App& app) {
  std::string words;
  for (const CLI::Option* option : app.get_options()) {
    if (option == app.get_help_ptr()) continue;  // which every verb has
    for (const std::string& name : option->get_lnames()) words += " --" + name;
    for (const std::string& name : option->get_snames()) words += " -" + name;
  }
  return words;
}

/// A line for the app and each verb below it; the options of all of `parents` count there too.
void AddLines(const CLI::App& app, const std::string& verbs, const std::string& parents,
              std::string* script) {
  const std::string options = parents + OptionsOf(app);
  std::string words;
  for (const CLI::App* verb : app.get_subcommands(IsAny)) words += " " + verb->get_name();
  *script += "    '" + verbs + "') echo '" + (words + options).substr(1) + " --help' ;;\n";
  for (const CLI::App* verb : app.get_subcommands(IsAny))
    AddLines(*verb, verbs + " " + verb->get_name(), options, script);
}

}  // namespace

std::string BashCompletion(const CLI::App& app) {
  std::string script = kHead;
  AddLines(app, "", "", &script);
  return script + kFoot;
}
