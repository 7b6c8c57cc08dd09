#include <limits>
#include <string>
#include <utility>

#include "agent/zelctl/command_line.h"
#include "agent/zelctl/file_commands.h"
#include "agent/zelctl/list_command.h"
#include "agent/zelctl/text_commands.h"

namespace {

constexpr int kMostEntries = std::numeric_limits<int>::max();

/// Adds verbs one after the other.
class Verbs {
 public:
  Verbs(CLI::App& app, Options* options, Command* command)
      : app_(app), options_(options), command_(command) {}

  CLI::App* Add(const char* name, const char* help, Result (*run)(AgentClient&, const Options&)) {
    CLI::App* verb = app_.add_subcommand(name, help);
    verb->callback([command = command_, run] { *command = ForAgent(run); });
    return verb;
  }

  CLI::App* AddForPath(const char* name, const char* help,
                       Result (*run)(AgentClient&, const Options&)) {
    CLI::App* verb = Add(name, help, run);
    verb->add_option("PATH", options_->source, "A path on the agent's machine")->required();
    return verb;
  }

  CLI::App* AddForTwoPaths(const char* name, const char* help,
                           Result (*run)(AgentClient&, const Options&)) {
    CLI::App* verb = Add(name, help, run);
    verb->add_option("SRC", options_->source, "A path on the agent's machine")->required();
    verb->add_option("DST", options_->destination, "The same, for the result")->required();
    return verb;
  }

 private:
  CLI::App& app_;
  Options* options_;
  Command* command_;
};

void AddFileCommands(Verbs& verbs, Options* options) {
  verbs.AddForTwoPaths("cp",
                       "Copy a file; onto itself it gets a free name beside it, as in name(1).txt",
                       [](AgentClient& agent, const Options& given) {
                         return Copy(agent, given.source, given.destination);
                       });
  verbs.AddForTwoPaths("mv", "Rename a file or directory",
                       [](AgentClient& agent, const Options& given) {
                         return Move(agent, given.source, given.destination);
                       });
  verbs
      .AddForPath("rm", "Delete a file",
                  [](AgentClient& agent, const Options& given) {
                    return Remove(agent, given.source, given.recursive);
                  })
      ->add_flag("-r,--recursive", options->recursive,
                 "Delete a directory too, with everything in it");
  verbs.AddForPath(
      "stat",
      "Show what a file is: size (which the agent gives modulo 4 GiB), MD5 digest, version,\n"
      "application, whether it is text; of a directory the number of entries",
      [](AgentClient& agent, const Options& given) { return ShowFile(agent, given.source); });
  verbs.AddForPath(
      "md5", "Print a file's MD5 digest and name",
      [](AgentClient& agent, const Options& given) { return ShowDigest(agent, given.source); });
}

void AddDirectoryCommands(Verbs& verbs) {
  verbs.AddForPath("mkdir", "Create a directory", [](AgentClient& agent, const Options& given) {
    return MakeDirectory(agent, given.source);
  });
  verbs.AddForPath(
      "rmdir", "Delete a directory WITH EVERYTHING IN IT",
      [](AgentClient& agent, const Options& given) { return RemoveTree(agent, given.source); });
  verbs.Add("volumes", "List the machine's drives: name, type, label",
            [](AgentClient& agent, const Options&) { return ListVolumes(agent); });
}

void AddListCommand(Verbs& verbs, ListOptions* list) {
  CLI::App* verb = verbs.AddForPath(
      "ls",
      "List a directory, directories first: mode, size, local date and time, name.\n"
      "Control characters in names are written out. With --json the agent is asked once,\n"
      "and --limit and --offset count hidden entries too.",
      [](AgentClient& agent, const Options& given) {
        ListOptions wanted = given.list;
        wanted.path = given.source;
        wanted.onlyReply = given.json;
        return ListDirectory(agent, wanted);
      });
  verb->add_option("--sort", list->order,
                   "name and mode ascending, size with the largest first, modified with the\n"
                   "newest first; --reverse turns each around")
      ->check(CLI::IsMember({"name", "size", "mode", "modified"}))
      ->capture_default_str();
  verb->add_flag("-r,--reverse", list->isReversed, "Sort the other way round");
  verb->add_option("--limit", list->limit, "Show at most so many entries")
      ->check(CLI::Range(1, kMostEntries));
  verb->add_option("--offset", list->offset, "Leave out so many entries first")
      ->check(CLI::Range(0, kMostEntries));
  verb->add_flag("-a,--hidden", list->withHidden, "Show hidden entries too");
  verb->add_flag("--names", list->onlyNames,
                 "Only names, which spares the agent the details; hidden are then the names that\n"
                 "start with a dot");
}

void AddTextCommands(Verbs& verbs, Options* options) {
  verbs.AddForPath(
      "cat", "Print the text of a file, as UTF-8",
      [](AgentClient& agent, const Options& given) { return PrintText(agent, given.source); });

  CLI::App* put = verbs.Add(
      "put",
      "Write a text into a file. It must be UTF-8; the agent puts a byte-order mark in front,\n"
      "or converts it where the file holds text of the system's code page.",
      [](AgentClient& agent, const Options& given) {
        return PutText(agent, given.source, given.destination);
      });
  put->add_option("LOCAL", options->source, "A file on this machine; - reads standard input")
      ->required();
  put->add_option("REMOTE", options->destination, "A path on the agent's machine")->required();

  verbs.AddForPath(
      "edit",
      "Change the text of a file, or of a new one, in $VISUAL or $EDITOR. Nothing is written\n"
      "when the text is left as it is or the file was changed meanwhile.",
      [](AgentClient& agent, const Options& given) { return EditText(agent, given.source); });
}

}  // namespace

void AddFileVerbs(CLI::App& app, Options* options, Command* command) {
  Verbs verbs(app, options, command);
  AddListCommand(verbs, &options->list);
  AddTextCommands(verbs, options);
  AddFileCommands(verbs, options);
  AddDirectoryCommands(verbs);
}
