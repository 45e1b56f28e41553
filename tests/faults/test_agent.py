"""The desktop agent under faults: a message is shown and answered in its window, whatever goes
wrong. The next command of the user finds either the answer or a message that waits."""

import pytest
from answers import ID, USER, AnswerBench, AnswerCase, waiting
from harness.user_program import PROGRAM
from tracing import run_traced
from trials import Tally, failures, kept_benches, kills

WINDOW = "/usr/local/lib/tellbox/tellbox-window"
# It answers at once, and ends the agent when the answer is there, or cannot come any more.
SCRIPT = f"""#!/bin/sh
echo shown
agent=$PPID
(
    exec >&- 2>&-
    for i in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do
        [ -e "$BOX/read/{ID}" ] && break
        kill -0 $agent || exit
        sleep 0.05
    done
    kill -TERM $agent
) &
echo "$ANSWER"
"""


class AgentBench(AnswerBench):
    """The agent runs where the command would; no display is asked for by the window's stand-in."""

    def __init__(self, binary, answer):
        self._answer = answer
        super().__init__(binary, AnswerCase(("agent",), waiting))

    def prepare(self):
        self.machine.write(WINDOW, SCRIPT, mode=0o755)
        self.machine.runtime_directory(USER)

    def run_traced(self, fault=None):
        return run_traced(self.machine, "agent", program=PROGRAM, user=USER, fault=fault,
                          env={"DISPLAY": "elsewhere:0", "ANSWER": self._answer,
                               "BOX": f"/var/lib/tellbox/users/{USER}"})

    def own_calls(self):
        """The agent's calls, without those of the window and of the program's start."""
        own = [call for call in self.calls if call.process == 0]
        first = next(place for place, call in enumerate(own) if call.path.endswith(".lock"))
        return own[first:]


@pytest.fixture
def new_agent_bench(binary):
    yield from kept_benches(lambda case: AgentBench(binary, case))


@pytest.mark.parametrize("answer", ["read", "later"])
def test_no_answer_is_lost_or_made_up_wherever_the_agent_is_killed(new_agent_bench, answer):
    bench = new_agent_bench(answer)
    tally = bench.try_fault()
    assert tally.outcomes == {"answered" if answer == "read" else "waiting": 1}, tally.failed
    for fault in kills(bench.own_calls()):
        tally.add(bench.try_fault(fault))
    assert tally.failed == []
    assert tally.tried > 15


def test_no_answer_is_lost_or_made_up_whichever_of_its_writes_fails(new_agent_bench):
    bench = new_agent_bench("read")
    tally = Tally()
    changing = [call for call in bench.own_calls()
                if call.changes and f"/users/{USER}" in call.path]
    for call in changing:
        fault = next(fault for fault in failures([call]))
        tally.add(bench.try_fault(fault))
    assert tally.failed == []
    assert tally.tried > 5
