"""Calls that take long by themselves, which go on beside other tests."""

import concurrent.futures
import time

from agents import BUILDS, Agent

MOST_CALLS = 64
# Of which a quarter is for calls that wait for other machines: all of them wait at a time.
THREADS = 4 * MOST_CALLS


class LongWaits:
    """Agents of their own, one for each platform, and what they were asked: {(platform, name)}."""

    def __init__(self, directory):
        self.agents = {platform: Agent(platform, directory / platform,
                                       f"[actions]\nmax_threads = {THREADS}\n")
                       for platform in BUILDS}
        self._callers = concurrent.futures.ThreadPoolExecutor(MOST_CALLS)
        self._asked = {}
        for agent in self.agents.values():
            agent.add_users()
            agent.start()

    def begin(self, name, call):
        """Has `call(agent)` done with each agent."""
        for platform, agent in self.agents.items():
            self._asked[platform, name] = self._callers.submit(self._timed, call, agent)

    @staticmethod
    def _timed(call, agent):
        begin = time.monotonic()
        answer = call(agent)
        return answer, time.monotonic() - begin

    def is_any_done(self):
        return any(one.done() for one in self._asked.values())

    def result(self, platform, name):
        """The answer, and after how many seconds it came."""
        return self._asked[platform, name].result()

    def end(self):
        """Stops the agents; their exit statuses."""
        self._callers.shutdown()
        try:
            return [agent.stop() for agent in self.agents.values()]
        finally:
            for agent in self.agents.values():
                agent.kill()
