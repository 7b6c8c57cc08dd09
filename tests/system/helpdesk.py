"""Helpdesk tasks: masters with their databases, devices, and what tests ask of them."""

from fleet import fleet_login
from uploads import invoke

NAME, DESCRIPTION = "_DB_ATTR_NAME_", "_DB_ATTR_DESCRIPTION_"
PRIORITY, REQUESTER = "_DB_ATTR_PRIORITY_", "_DB_ATTR_REQUESTEDBY_"
NOTES, STATUS = "_DB_ATTR_NOTES_", "_DB_ATTR_STATUS_"

DATABASES = ("sqlite", "postgresql")
MAX_TEXT, MAX_LINE = 1 << 20, 4 << 10

MASTER_NOT_INVOKED = 32003


class Helpdesk:
    """Masters on both databases and their devices, the same ones each time."""

    def __init__(self, fleet, postgres):
        self.fleet, self.postgres = fleet, postgres
        self._kept = {}

    def master(self, database="sqlite", mode="plain"):
        def make():
            name = self.postgres.new_database() if database == "postgresql" else None
            master = self.fleet.make_master(mode, self.postgres.connection(name) if name else "",
                                            log={"level": "detail"})
            master.database = name
            return master

        return self._keep(("master", database, mode), make)

    def device(self, platform, database="sqlite", mode="plain", name="device"):
        master = self.master(database, mode)

        def make():
            device = self.fleet.make_device(platform, master, mode, name, log={"level": "detail"})
            device.master = master
            return device

        return self._keep((platform, database, mode, name), make)

    def _keep(self, key, make):
        if key not in self._kept:
            self._kept[key] = make()
        return self._kept[key]

    def end(self):
        """Stops the devices, then their masters; what went wrong."""
        stopped = [(agent.stop(), agent) for agent in reversed(self._kept.values())]
        return [(status, agent.describe()) for status, agent in stopped if status != 0]


# What callers of a device ask.

def create(device, name, requester="", user="admin", **more):
    """Whether the task was opened."""
    code, container = device.call("CoreUtilsCreateTask", user=user,
                                  **{NAME: name, REQUESTER: requester, **more})
    assert code == 0
    return container["Result"]


def close(device, number, requester="", user="admin"):
    code, container = device.call("CoreUtilsCloseTask", user=user,
                                  **{"ObjectId": number, REQUESTER: requester})
    assert code == 0
    return container["Result"]


def add_note(device, number, text, requester="", user="admin"):
    code, container = device.call("CoreUtilsTaskAddNote", user=user,
                                  **{"ObjectId": number, NOTES: text, REQUESTER: requester})
    assert code == 0
    return container["Result"]


def tasks(device, user="admin", **filters):
    """The rows of a list, the newest task first."""
    code, container = device.call("CoreUtilsTaskGetList", user=user, **filters)
    assert code == 0
    return container.get("Values", [])


def check(device):
    """(code, Result)."""
    code, container = device.call("CoreUtilsCheckTask")
    assert container["ErrorCode"] == code
    return code, container["Result"]


def newest(device, requester):
    """The last task that was opened for this requester."""
    return tasks(device, **{REQUESTER: requester})[0]


def names(rows):
    return [row[NAME] for row in rows]


# What agents ask of the master.

def ask(master, action, agent="tester", login="", administrator=False, **parameters):
    """The master's answer to an agent, whose console user may be the one who asks."""
    if login:
        parameters["AgentCallingUser"] = {"Login": login, "Administrator": administrator}
    return invoke(master, action, fleet_login(agent), **parameters)
