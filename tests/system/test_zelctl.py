"""zelctl's texts and exit statuses, and its verbs that copy, move, make and delete."""

import json


def run(agent, *arguments, **options):
    done = agent.zelctl(*arguments, **options)
    return done.returncode, done.stdout.decode(), done.stderr.decode()


def test_cp_onto_itself_makes_a_numbered_copy(agent, tmp_path):
    file = tmp_path / "file.txt"
    file.write_text("x")
    assert run(agent, "cp", agent.path(file), agent.path(file)) == (0, "", "")
    assert (tmp_path / "file(1).txt").read_text() == "x"


def test_cp_of_a_missing_file_names_the_code(agent, tmp_path):
    missing = agent.path(tmp_path / "none")
    assert run(agent, "cp", missing, missing) == (
        1, "", "zelctl: CoreUtilsCopyFile: code 14001: the named file does not exist\n")


def test_mv_renames_files_and_directories(agent, tmp_path):
    (tmp_path / "file").write_text("x")
    (tmp_path / "directory").mkdir()
    path = lambda name: agent.path(tmp_path / name)
    assert run(agent, "mv", path("file"), path("file2"))[0] == 0
    assert run(agent, "mv", path("directory"), path("directory2"))[0] == 0
    assert (tmp_path / "file2").is_file() and (tmp_path / "directory2").is_dir()


def test_mv_of_nothing_names_14001_and_leaves_the_destination(agent, tmp_path):
    (tmp_path / "there").mkdir()
    status, _, errors = run(agent, "mv", agent.path(tmp_path / "none"), agent.path(tmp_path / "there"))
    assert (status, "CoreUtilsRenameFile: code 14001" in errors) == (1, True)
    assert (tmp_path / "there").is_dir()


def test_mv_of_a_directory_onto_another_does_not_call_it_missing(agent, tmp_path):
    for name in ("a", "b"):
        (tmp_path / name).mkdir()
        (tmp_path / name / "file").write_text(name)
    status, _, errors = run(agent, "mv", agent.path(tmp_path / "a"), agent.path(tmp_path / "b"))
    assert (status, errors) == (1, "zelctl: CoreUtilsDirRename: code 1: failure\n")
    assert (tmp_path / "a/file").read_text() == "a"


def test_rm_deletes_a_file_and_a_directory_only_with_r(agent, tmp_path):
    (tmp_path / "file").write_text("x")
    (tmp_path / "directory").mkdir()
    (tmp_path / "directory/file").write_text("x")
    directory = agent.path(tmp_path / "directory")

    assert run(agent, "rm", agent.path(tmp_path / "file"))[0] == 0
    status, _, errors = run(agent, "rm", directory)
    assert (status, "is a directory; use rm -r" in errors) == (1, True)
    assert (tmp_path / "directory/file").exists()
    assert run(agent, "rm", "-r", directory) == (0, "", "")
    assert not list(tmp_path.iterdir())


def test_rm_of_nothing_names_14001(agent, tmp_path):
    for flags in ((), ("-r",)):
        status, _, errors = run(agent, "rm", *flags, agent.path(tmp_path / "none"))
        assert (status, "code 14001" in errors) == (1, True)


def test_mkdir_and_rmdir(agent, tmp_path):
    directory = agent.path(tmp_path / "directory")
    assert run(agent, "mkdir", directory) == (0, "", "")
    (tmp_path / "directory/file").write_text("x")
    assert run(agent, "rmdir", directory) == (0, "", "")
    assert not (tmp_path / "directory").exists()
    status, _, errors = run(agent, "rmdir", directory)
    assert (status, "there is no such directory" in errors) == (1, True)


def test_rmdir_tells_when_something_is_left(agent, small_disk):
    # A mounted file system cannot be deleted, whoever asks.
    status, _, errors = run(agent, "rmdir", agent.path(small_disk.parent))
    assert (status, "could be deleted" in errors) == (1, True)
    assert small_disk.is_dir()


def test_the_verbs_print_the_deciding_reply_with_json(agent, tmp_path):
    (tmp_path / "file").write_text("123")
    assert run(agent, "--json", "md5", agent.path(tmp_path / "file"))[1].startswith(
        '{"code":0,"container":{')
    assert run(agent, "rm", "--json", agent.path(tmp_path / "none"))[1] == (
        '{"code":14001,"container":{"Result":0}}\n')


def test_call_prints_for_people_and_exactly_for_machines(agent, tmp_path):
    (tmp_path / "file").write_text("123")
    path = "Path=" + agent.path(tmp_path / "file")
    assert run(agent, "call", "CoreUtilsGetFileSize", path) == (0, "Result: 3\n", "")
    assert run(agent, "--json", "call", "CoreUtilsGetFileSize", path) == (
        0, '{"code":0,"container":{"Result":3}}\n', "")


def test_actions_lists_the_modules_actions_with_their_signatures(agent):
    status, output, _ = run(agent, "--json", "actions", "CoreUtils*")
    assert status == 0
    assert [row["signature"] for row in json.loads(output)] == [
        "CoreUtilsCopyFile (string SourcePath, string DestinationPath)",
        "CoreUtilsRenameFile (string SourcePath, string DestinationPath)",
        "CoreUtilsDeleteFile (string Path)",
        "CoreUtilsGetFileSize (string Path)",
        "CoreUtilsGetFileInformation (string Path)",
        "CoreUtilsGetFileSystems ()",
        "CoreUtilsGetDirList (string Path)",
        "CoreUtilsReadFile (string Path, int Offset, int Length)",
        "CoreUtilsWriteFile (string Path, string FileContent)",
        "CoreUtilsDirCreate (string Path)",
        "CoreUtilsDirRename (string SourcePath, string DestinationPath)",
        "CoreUtilsDirDelete",
        "CoreUtilsListDomains",
        "CoreUtilsListServers",
        "CoreUtilsRunProgram (string Path)",
        "CoreUtilsRunScript (string Name, container Params, boolean CompileOnly)",
        "CoreUtilsListProcess (container Params)",
        "CoreUtilsInfosProcessAvailable ()",
        "CoreUtilsTerminateProcess (int ProcessID)",
        "CoreUtilsCheckClientAccept ()",
        "CoreUtilsDestroyAckPopup ()",
        "CoreUtilsLockDesktop ()",
        "CoreUtilsSetLockMessageText ()",
        "CoreUtilsUnlockDesktop ()",
        "CoreUtilsRestoreDesktopLockState ()",
        "CoreUtilsFileMD5 ()",
        "CoreUtilsCreateTask ()",
        "CoreUtilsCloseTask ()",
        "CoreUtilsTaskAddNote ()",
        "CoreUtilsTaskGetList ()",
        "CoreUtilsCheckTask ()",
        "CoreUtilsCopyFileToRelay ()",
        "CoreUtilsRestoreBackupFromRelay ()",
        "CoreUtilsRestoreBackup ()",
        "CoreUtilsExtractFile ()",
        "CoreUtilsAdvanceDialog",
        "CoreUtilsWakeUp",
        "CoreUtilsShowDialog ()",
        "CoreUtilsCloseDialog ()",
        "CoreUtilsConfigureJWS (string MasterAddress, int MasterHttpPort)",
        "CoreUtilsIsUserLogged ()",
        "CoreUtilsExitOperatingSystem",
        "CoreUtilsGetMasterAttachmentsPath",
        "CoreUtilsPingICMP (string strTargetAddr)",
        "CoreUtilsShellExecuteAsLoggedUser (string strCommand, string strAgentPath)",
        "CoreUtilsCheckSMBShare (string strSharePath, string strUser, string strPassword)",
        "CoreUtilsCheckHTTPConnection (string strUrl)",
    ]
    assert "CoreUtilsDirDelete" in run(agent, "actions", "dirdel")[1]


def test_an_unknown_action_is_usage_and_gets_a_suggestion(agent):
    status, output, errors = run(agent, "call", "CoreUtilCopyFile")
    assert (status, output) == (2, "")
    assert errors == (
        "zelctl: there is no action CoreUtilCopyFile; did you mean CoreUtilsCopyFile?\n")


def test_a_parameter_of_the_wrong_type_is_usage_and_named(agent):
    status, _, errors = run(agent, "call", "CoreUtilsGetFileSize", "Path:=1")
    assert status == 2
    assert "Path" in errors and "wrong_type" in errors


def test_a_wrong_command_line_is_usage(agent):
    assert run(agent, "cp", "only-one")[0] == 2
    assert run(agent, "nonsense")[0] == 2
    assert run(agent, "call", "CoreUtilsGetFileSize", "no-equals-sign")[0] == 2


def test_refused_credentials_and_no_agent_are_status_3(agent):
    status, _, errors = run(agent, "actions", password="wrong")
    assert (status, "401" in errors) == (3, True)
    status, _, errors = run(agent, "health", url="http://127.0.0.1:1")
    assert (status, "no answer from http://127.0.0.1:1" in errors) == (3, True)


def test_code_12_is_explained(agent, tmp_path):
    (tmp_path / "file").write_text("x")
    status, _, errors = run(agent, "rm", agent.path(tmp_path / "file"), user="visitor")
    assert (status, errors) == (
        1, "zelctl: CoreUtilsDeleteFile: code 12: refused by the privacy check\n")


def test_health_needs_no_user(agent):
    assert run(agent, "health") == (0, "ok\n", "")


def test_unicode_paths_pass_through_the_command_line(agent, tmp_path):
    file = tmp_path / "größe 日本 😀.txt"
    file.write_text("123")
    status, output, _ = run(agent, "stat", agent.path(file))
    assert (status, "größe 日本 😀.txt" in output) == (0, True)
