#include "agent/libZel/network/port.h"
#include "agent/zelctl/command_line.h"
#include "agent/zelctl/terminal.h"

namespace {

void AddRelayCommands(CLI::App& app, RelayPutOptions* put, Command* command) {
  CLI::App* relay = app.add_subcommand(
      "relay", "Work with the relay, the agent that this agent hands its files to");
  relay->require_subcommand(1);
  AddVerb(*relay, "info", "Tell where the relay is, and where the agent itself", command,
          [](AgentClient& agent, const Options&) { return ShowRelay(agent); });
  AddVerb(*relay, "aliases", "List the directories that are open for uploads to the agent", command,
          [](AgentClient& agent, const Options&) { return ListAliases(agent); });

  CLI::App* verb = AddVerb(*relay, "put", "Copy a file of the agent's machine to its relay",
                           command, [](AgentClient& agent, const Options& given) {
                             RelayPutOptions put = given.relayPut;
                             put.showsProgress = IsErrorTerminal();
                             return PutOnRelay(agent, put);
                           });
  verb->add_option("SOURCE", put->source, "A file on the agent's machine")->required();
  verb->add_option("DESTINATION", put->destination,
                   "Its path on the relay; the directory is made when it is missing")
      ->required();
  verb->add_flag(
      "--unpack", put->unpack,
      "Unpack the ZIP archive there, into a directory of its name without the extension,\n"
      "and delete it");
}

void AddBackupCommands(CLI::App& app, Options* options, Command* command) {
  CLI::App* backup = app.add_subcommand(
      "backup", "Work with backups: directories and ZIP archives called NAME or NAME_YYYYMMDD");
  backup->require_subcommand(1);
  CLI::App* list =
      AddVerb(*backup, "list", "List the backups in a directory of the agent's machine", command,
              [](AgentClient& agent, const Options& given) {
                return ListBackups(agent, given.source, given.pattern);
              });
  list->add_option("DIRECTORY", options->source, "A directory on the agent's machine")->required();
  list->add_option("NAME", options->pattern,
                   "Only backups of this name, or what --last chooses from by it");

  BackupRestoreOptions* restore = &options->restore;
  CLI::App* verb =
      AddVerb(*backup, "restore",
              "Bring a backup from a relay back to the agent; tells where its archive\n"
              "is stored",
              command, [](AgentClient& agent, const Options& given) {
                BackupRestoreOptions restore = given.restore;
                restore.showsProgress = IsErrorTerminal();
                return RestoreBackup(agent, restore);
              });
  verb->add_option("NAME", restore->name,
                   "An archive there with its .zip, or with --last or --directory the name of\n"
                   "a backup without it")
      ->required();
  verb->add_option("--from", restore->from, "The directory on the relay that holds the backup")
      ->required();
  verb->add_option("--to", restore->to, "The directory on the agent's machine that gets it")
      ->required();
  verb->add_option("--relay", restore->relay,
                   "HOST:PORT of the agent that has the backup, instead of the agent's relay");
  CLI::Option* newest =
      verb->add_flag("--last", restore->newest, "Take the newest backup NAME_YYYYMMDD");
  verb->add_flag("--directory", restore->isDirectory,
                 "NAME is a directory there: it is packed, and an archive NAME.zip beside it is\n"
                 "sent in its place; that archive is deleted there afterwards")
      ->excludes(newest);
  verb->add_option("--host", restore->host,
                   "Where the relay reaches the agent, instead of what the agent says itself");
  verb->add_option("--port", restore->port, "The port there")->check(CLI::Range(1U, kMaxPort));
}

void AddExtractCommand(CLI::App& app, ExtractOptions* extract, Command* command) {
  CLI::App* verb = AddVerb(
      app, "extract",
      "Unpack a ZIP archive on the agent's machine; the archive is deleted when all of it came out",
      command, [](AgentClient& agent, const Options& given) {
        ExtractOptions extract = given.extract;
        extract.showsProgress = IsErrorTerminal();
        return ExtractArchive(agent, extract);
      });
  verb->add_option("ARCHIVE", extract->archive, "An archive on the agent's machine")->required();
  verb->add_option("DIRECTORY", extract->directory,
                   "Where its content goes; made if it is not there")
      ->required();
}

}  // namespace

void AddTransferVerbs(CLI::App& app, Options* options, Command* command) {
  AddRelayCommands(app, &options->relayPut, command);
  AddBackupCommands(app, options, command);
  AddExtractCommand(app, &options->extract, command);
}
