"""What a client of the soak does: short sequences of calls whose answers are known."""

import base64
import hashlib
import json
import os
import pathlib
import select
import shutil
import subprocess
import zipfile

# How often each is done, beside the others.
WEIGHTS = {
    "size": 300, "digest": 80, "information": 60, "page": 50, "names": 30, "volumes": 40, "text": 60,
    "columns": 40, "attachments": 30, "identity": 30, "health": 20, "actions": 3,
    "missing": 40, "refused_path": 30, "refused_request": 20,
    "life_of_a_file": 12, "processes": 3, "program": 3, "termination": 1,
    "script": 15, "broken_script": 6, "compilation": 4,
    "upload": 4, "unpacked_upload": 1, "restore": 1, "extraction": 3,
    "life_of_a_task": 2, "master": 6, "device_asks_master": 6,
    "dialog": 8, "message": 4, "lock": 2, "session": 8, "program_as_user": 2, "consent": 4,
    "echo": 12, "web": 5, "share": 1, "wake_up": 4, "descriptors": 1,
}
# There is one of these for the whole machine: clients would see each other's.
FOR_CLIENT_0 = ("consent", "descriptors")
MISSING_FILE = 14001
REFUSED_BY_POLICY = 12
CONNECTION_STEP_FAILED = 20


def flows_of(number, clients):
    """(names, weights, first names) for one of the clients: all of them together begin with everything
    once."""
    names = [name for name in WEIGHTS if number == 0 or name not in FOR_CLIENT_0]
    others = [name for name in WEIGHTS if name not in FOR_CLIENT_0]
    first = others[number::clients] + (list(FOR_CLIENT_0) if number == 0 else [])
    return names, [WEIGHTS[name] for name in names], first


def base64_of(text):
    return base64.b64encode(text.encode()).decode()


class Flows:
    def __init__(self, client, world, random, name):
        self.client, self.world, self.random, self.name = client, world, random, name
        self.call = client.call
        self.scratch = pathlib.Path(world["scratch"]) / name
        self.scratch.mkdir()
        self.count = 0

    def unused(self, what):
        """A name that no other client uses, and this one never again."""
        self.count += 1
        return f"{what}-{self.name}-{self.count}"

    def some_file(self):
        return self.random.choice(self.world["files"])

    # Files and directories that do not change.

    def size(self):
        file = self.some_file()
        self.call("CoreUtilsGetFileSize", {"Result": file["size"]}, Path=file["path"])

    def digest(self):
        file = self.some_file()
        self.call("CoreUtilsFileMD5", {"FilePath": file["path"], "FileChecksum": file["md5"]},
                  FilePath=file["path"])

    def information(self):
        file = self.some_file()
        self.call("CoreUtilsGetFileInformation",
                  {"OriginalFileName": "", "FileVersion": "", "ApplicationName": "",
                   "FileChecksum": file["md5"], "FileSize": file["size"], "IsText": file["is_text"]},
                  Path=file["path"])

    def page(self):
        names = self.world["listed"]
        offset = self.random.randrange(len(names))
        rows = self.call("CoreUtilsGetDirList", Path=self.world["directory"], Offset=offset, Count=10)
        self.client.insist(rows["Total"] == len(names), f"{rows['Total']} rows in all")
        found = [row["Name"] for row in rows["Values"]]
        self.client.insist(found == names[offset:offset + 10], f"a page of {found}")

    def names(self):
        rows = self.call("CoreUtilsGetDirList", Path=self.world["directory"], Parameters=False,
                         SortOrder="Desc")
        found = [row["Name"] for row in rows["Values"]]
        self.client.insist(found == self.world["listed"][::-1], f"a listing of {found}")

    def volumes(self):
        rows = self.call("CoreUtilsGetFileSystems")["Values"]
        self.client.insist([row["Name"] for row in rows] == ["C:"], f"drives {rows}")

    def text(self):
        file = self.world["text"]
        self.call("CoreUtilsReadFile", {"Result": base64_of(file["text"])}, Path=file["path"],
                  Length=file["size"])

    def missing(self):
        path = self.world["directory"] + "/missing"
        self.call("CoreUtilsGetFileSize", {"Result": 0}, MISSING_FILE, Path=path)
        self.call("CoreUtilsFileMD5", {"FilePath": path, "FileChecksum": ""}, FilePath=path)
        self.call("CoreUtilsGetDirList", {}, 1, Path=path)

    # What the agent tells of itself, and what it refuses.

    def columns(self):
        columns = self.call("CoreUtilsInfosProcessAvailable")
        self.client.insist(len(columns) == 10 and all(columns.values()), f"columns {columns}")

    def attachments(self):
        path = self.call("CoreUtilsGetMasterAttachmentsPath")["Path"]
        self.client.insist(path.endswith("TarnDatabase\\attachments\\temp"), path)

    def identity(self):
        self.call("IdentityGetGUID", {"GUID": self.world["identity"]})

    def health(self):
        answer = self.client.ask("GET", "/v1/health")
        self.client.insist(answer == (200, b'{"status":"ok"}'), f"health {answer}")

    def actions(self):
        status, body = self.client.ask("GET", "/v1/actions")
        self.client.insist(status == 200 and len(json.loads(body)) == self.world["actions"], body)

    def refused_path(self):
        self.call("CoreUtilsGetFileSize", {"Result": 0}, REFUSED_BY_POLICY, user="visitor",
                  Path=self.some_file()["path"])

    def refused_request(self):
        refused, target = self.client.refused, "/v1/actions/CoreUtilsGetFileSize"
        refused(400, "wrong_type", target, b'{"Path":7}')
        refused(400, "malformed_body", target, b'{"Path":')
        refused(404, "unknown_action", "/v1/actions/Nothing")
        refused(405, "method_not_allowed", target, b"", "GET")
        refused(403, "administrators_only", "/v1/actions/CoreUtilsRunScript", user="visitor")

    # Files and directories of this client.

    def life_of_a_file(self):
        call, directory = self.call, str(self.scratch / self.unused("life"))
        text = "some text, größer\n" * self.random.randrange(1, 2000)
        size = len(text.encode()) + 3
        first, second, third = (f"{directory}/{name}" for name in ("first", "second", "third"))
        call("CoreUtilsDirCreate", {}, Path=directory)
        call("CoreUtilsWriteFile", {}, Path=first, FileContent=base64_of(text))
        call("CoreUtilsGetFileSize", {"Result": size}, Path=first)
        call("CoreUtilsReadFile", {"Result": base64_of(text)}, Path=first, Length=size)
        call("CoreUtilsCopyFile", {}, SourcePath=first, DestinationPath=second)
        call("CoreUtilsRenameFile", {}, SourcePath=second, DestinationPath=third)
        call("CoreUtilsWriteFile", {}, Path=first, FileContent=base64_of("shorter"))
        digest = hashlib.md5(b"\xef\xbb\xbf" + text.encode()).hexdigest()
        call("CoreUtilsFileMD5", {"FilePath": third, "FileChecksum": digest}, FilePath=third)
        call("CoreUtilsDeleteFile", {}, Path=first)
        call("CoreUtilsGetFileSize", {"Result": 0}, MISSING_FILE, Path=first)
        call("CoreUtilsDirRename", {}, SourcePath=directory, DestinationPath=directory + ".old")
        call("CoreUtilsDirDelete", {}, Path=directory + ".old")
        self.client.insist(not os.listdir(self.scratch), f"{os.listdir(self.scratch)} is left")

    # Programs and scripts.

    def processes(self):
        rows = self.call("CoreUtilsListProcess")["Values"]
        own = [row for row in rows if row["ProcessID"] == str(self.world["device_pid"])]
        self.client.insist(len(own) == 1 and own[0]["ProcessName"] == "zelagent", f"rows {own}")

    def program(self):
        self.call("CoreUtilsRunProgram", code=0, Path="/bin/true")

    def termination(self):
        sleeper = subprocess.Popen(["sleep", "1000"])
        self.call("CoreUtilsTerminateProcess", {"ProcessID": str(sleeper.pid)},
                  ProcessID=str(sleeper.pid))
        self.client.insist(sleeper.wait(30) == -9, f"sleep ended with {sleeper.returncode}")

    def script(self):
        file = self.some_file()
        given = {"Path": file["path"], "Size": file["size"], "Md5": file["md5"]}
        parameters = {"Name": self.world["scripts"]["good"], "Params": given}
        self.call("CoreUtilsRunScript", parameters, **parameters)

    def broken_script(self):
        answer = self.call("CoreUtilsRunScript", code=1, Name=self.world["scripts"]["broken"])
        self.client.insist(answer["ErrorLine"] == 3 and "on purpose" in answer["ErrorText"], answer)

    def compilation(self):
        parameters = {"Name": self.world["scripts"]["good"], "CompileOnly": True}
        self.call("CoreUtilsRunScript", parameters, **parameters)

    # The relay.

    def take(self, path, content):
        """A file that has to be there with this content, and is taken away."""
        found = pathlib.Path(path).read_bytes()
        self.client.insist(found == content, f"{path} has {len(found)} other bytes")
        os.unlink(path)

    def upload(self):
        file = self.some_file()
        stored = f"{self.world['stored']}/{self.unused('upload')}"
        parameters = {"SourcePath": file["path"], "DestinationPath": stored}
        self.call("CoreUtilsCopyFileToRelay", {**parameters, "ErrorCode": 0}, **parameters)
        self.take(stored, pathlib.Path(file["path"]).read_bytes())

    def unpacked_upload(self):
        directory = f"{self.world['stored']}/{self.unused('unpacked')}"
        parameters = {"SourcePath": self.world["archive"], "DestinationPath": directory + ".zip",
                      "IsZippedFile": True}
        self.call("CoreUtilsCopyFileToRelay", {**parameters, "ErrorCode": 0}, **parameters)
        self.check_unpacked(directory)

    def restore(self):
        device, relay = (self.world["agents"][name]["address"] for name in ("device", "relay"))
        values = {"SourcePath": self.world["backups"], "DestinationPath": self.world["restored"],
                  "Name": "pc", "Last": True, "HostName": device[0], "HttpPort": device[1]}
        answer = self.call("CoreUtilsRestoreBackupFromRelay", HostName=relay[0], HttpPort=relay[1],
                           Values=values)
        restored = self.world["restored"] + "/pc_20260102.zip"
        self.client.insist(answer.get("Name") == restored and answer["ErrorCode"] == 0, answer)
        # Others restore the same file, so it stays.
        self.client.insist(pathlib.Path(restored).read_bytes()
                           == pathlib.Path(self.world["archive"]).read_bytes(), "another file")

    def extraction(self):
        directory = self.scratch / self.unused("extracted")
        archive = f"{directory}.zip"
        shutil.copy(self.world["archive"], archive)
        parameters = {"FilePath": archive, "DestinationPath": str(directory)}
        self.call("CoreUtilsExtractFile", {**parameters, "ErrorCode": 0}, **parameters)
        self.client.insist(not os.path.exists(archive), "an archive is left")
        self.check_unpacked(directory)

    def check_unpacked(self, directory):
        with zipfile.ZipFile(self.world["archive"]) as archive:
            for name in archive.namelist():
                self.take(f"{directory}/{name}", archive.read(name))
        os.rmdir(directory)

    # Tasks.

    def life_of_a_task(self):
        requester = self.unused("requester")
        who = {"_DB_ATTR_REQUESTEDBY_": requester}

        def insist(action, result, **parameters):
            answer = self.call(action, **who, **parameters)
            self.client.insist(answer["Result"] is result, f"{action} {parameters}: {answer}")

        insist("CoreUtilsCreateTask", True, _DB_ATTR_NAME_="Printer on fire", _DB_ATTR_NOTES_="one")
        number = self.only_task(who, "open", 1)
        insist("CoreUtilsTaskAddNote", True, ObjectId=number, _DB_ATTR_NOTES_="two")
        insist("CoreUtilsCloseTask", True, ObjectId=number)
        insist("CoreUtilsCloseTask", False, ObjectId=number)
        self.only_task(who, "closed", 2)

    def only_task(self, who, status, notes):
        rows = self.call("CoreUtilsTaskGetList", **who)["Values"]
        row = rows[0]
        found = len(rows), row["_DB_ATTR_STATUS_"], len(row["_DB_ATTR_NOTES_"])
        self.client.insist(found == (1, status, notes), f"tasks {rows}")
        return row["ObjectId"]

    def device_asks_master(self):
        self.call("CoreUtilsCheckTask", {"Result": True, "ErrorCode": 0})

    def master(self):
        self.call("CoreUtilsCheckTask", {"Result": True, "ErrorCode": 0}, agent="master")
        nobody = {"_DB_ATTR_REQUESTEDBY_": "nobody"}
        self.call("CoreUtilsTaskGetList", nobody, agent="master", **nobody)

    # The person at the machine, whose answers stand in the questions (soak_world.py).

    def dialog(self):
        for word, labels, result in (("[first]", ("Yes", "No"), 1), ("[second]", ("Yes", "No"), 0),
                                     ("[only]", ("Good", ""), 1), ("[end]", ("Yes", "No"), 2)):
            self.call("CoreUtilsAdvanceDialog", {"Result": result}, Message="Well? " + word,
                      ButtonOK=labels[0], ButtonCancel=labels[1], Title="A <title> & more")

    def message(self):
        self.call("CoreUtilsShowDialog", {}, Message="The server goes down. [nobody]")
        self.call("CoreUtilsCloseDialog", {})

    def lock(self):
        message = {"LockMessage": "Please wait."}
        self.call("CoreUtilsLockDesktop", message, **message)
        self.call("CoreUtilsSetLockMessageText", message, **message)
        self.call("CoreUtilsRestoreDesktopLockState", {})
        self.call("CoreUtilsUnlockDesktop", {})

    def session(self):
        self.call("CoreUtilsIsUserLogged", {"UserLogged": True, "ScreenSaving": False})

    def program_as_user(self):
        command = {"Command": "tool --now"}
        self.call("CoreUtilsShellExecuteAsLoggedUser", code=0, **command)

    def consent(self):
        for name, answer in (("Ann [first]", 1), ("Joe [second]", 0)):
            self.call("CoreUtilsCheckClientAccept", {"Acknowledge": answer}, DisplayAdminName=name)
        self.call("CoreUtilsDestroyAckPopup", {})

        asking = self.client.connection(purpose="question")
        asking.request("GET", "/v1/health")  # with which TLS has said all that it says by itself
        name = {"DisplayAdminName": "Eve [nobody]"}
        asking.send("POST", "/v1/actions/CoreUtilsCheckClientAccept", json.dumps(name).encode())
        # The question may not be there yet when it is withdrawn.
        while not select.select([asking], [], [], 0.01)[0]:
            self.call("CoreUtilsDestroyAckPopup", {})
        self.client.calls += 1
        self.client.check("CoreUtilsCheckClientAccept", name, *asking.receive(), {}, 0)
        asking.close()

    # The network.

    def echo(self):
        self.call("CoreUtilsPingICMP", {"Result": True}, PingAddr="127.0.0.1")

    def web(self):
        for name, result in (("good", 1), ("bad", 0)):
            parameters = {"HTTPCheckURL": self.world["urls"][name]}
            self.call("CoreUtilsCheckHTTPConnection", {**parameters, "HTTPCheckUrlResult": result},
                      **parameters)

    def share(self):
        share = self.world["share"]
        for password, code, result in ((share["password"], 0, 0),
                                       ("wrong", CONNECTION_STEP_FAILED, 2)):
            answer = self.call("CoreUtilsCheckSMBShare", code=code, SmbPathShare=share["path"],
                               SmbUser=share["user"], SmbPassword=password)
            self.client.insist(answer["ConnectionResult"] == result, answer)

    def wake_up(self):
        parameters = {"IpAddress": 0x7F000001, "NetworkMask": -1, "MacAddress": "00A0C9141A2B"}
        self.call("CoreUtilsWakeUp", parameters, **parameters)

    def descriptors(self):
        parameters = {"MasterAddress": f"master-{self.random.randrange(3)}.example.net"}
        self.call("CoreUtilsConfigureJWS", parameters, **parameters)
        text = pathlib.Path(self.world["descriptor"]).read_text()
        self.client.insist(parameters["MasterAddress"] in text, text)
