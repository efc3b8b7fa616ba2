#!/usr/bin/env python3
"""Runs the tests of a built tree, as CTest would, in states that a program may find itself in.

usage: run_suite.py [--only PATTERN] BUILD_DIRECTORY [STATE...]

Without a state it goes through all of them. Fails when a test does, and shows what it said. A test
that cannot pass in a state, by the nature of either, stands below with the reason."""

import argparse
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

NOBODY = 65534
MANY_DESCRIPTORS = 2000  # far more than FD_SETSIZE
# Any account can run the system's; the one that runs this may be private.
PYTHON = "/usr/bin/python3" if os.path.exists("/usr/bin/python3") else sys.executable
LONGEST_TEST = 300  # seconds, where a test has no limit of its own; for broken tests only
# Many tests wait most of the time.
TESTS_AT_ONCE = 2 * os.cpu_count()
SHOWN_AS_SLOW = 3


class State:
    """What surrounds a test: changes of its environment and steps taken before it starts."""

    def __init__(self, about, environment=None, preload=(), enter=None, left_out=None):
        self.about = about
        self.environment = environment or {}
        self.preload = preload
        self.enter = enter
        self.left_out = left_out or {}

    def reason_to_leave_out(self, name):
        for pattern, reason in {**NEVER_RUN, **self.left_out}.items():
            if re.fullmatch(pattern, name):
                return reason
        return None


# Patterns of names, with the reason why those tests are left out.
NEVER_RUN = {
    r"(Consumer|Install|Abi|Header|Package)\w*\..*|ExportedSymbols\..*":
        "they build or read files; no program of the library runs",
    r"SpawnProcess\.TenThousandTimes": "it starts ten thousand children, where single ones show as much",
}


def close_standard_descriptors():
    os.closerange(0, 3)


def become_nobody():
    os.setgroups([])
    os.setgid(NOBODY)
    os.setuid(NOBODY)


def open_many_descriptors():
    null = os.open(os.devnull, os.O_RDONLY)
    os.set_inheritable(null, True)
    for number in range(3, MANY_DESCRIPTORS):
        os.dup2(null, number)  # also over those that would be closed when the test starts


# A value of None takes a variable away.
STATES = {
    "closed-descriptors": State(
        "descriptors 0 to 2 are closed",
        enter=close_standard_descriptors,
        left_out={
            r"agent\..*|Examples\..*|Interop\..*":
                "their drivers talk to the programs on those; the agent has a test of its own for it",
            r"SendWOL\..*": "a socket that is descriptor 0 counts as none, by a rule with a test",
        },
    ),
    "open-umask": State(
        "umask 0, a zone that once skipped a day, the Turkish locale",
        environment={"TZ": "Pacific/Apia", "LC_ALL": "tr_TR.UTF-8"},
        preload=["adopted_locale"],
        enter=lambda: os.umask(0),
    ),
    "strict-umask": State(
        "umask 077, no HOME, a zone of odd minutes given by its rules, the German locale",
        environment={
            "TZ": "<+1245>-12:45<+1345>,M9.5.0/2:45,M4.1.0/3:45",
            "LC_ALL": "de_DE.UTF-8",
            "HOME": None,
        },
        preload=["adopted_locale"],
        enter=lambda: os.umask(0o077),
    ),
    "removed-directory": State(
        "a working directory that is gone, a zone and a locale that do not exist",
        environment={
            "TZ": "No/Such:Zone",
            "LC_ALL": "no_SUCH.locale",
            "KIV_TEST_IN_REMOVED_DIRECTORY": "1",
        },
        preload=["adopted_locale"],
        left_out={
            r"MakeDirectory\.(SkipsEmptyPartsWhenRecursive"
            r"|DoublesTheTwoBackslashesOfANetworkPath)": "they make relative paths",
            r"SpawnProcess\.RunsTheChildAsTheUserForGood":
                "the shell that it starts complains about the directory",
        },
    ),
    "unprivileged": State(
        "an account without rights, a zone of odd minutes, the C locale",
        environment={"TZ": "Asia/Kathmandu", "LC_ALL": "C"},
        preload=["adopted_locale"],
        enter=become_nobody,
    ),
    "many-descriptors": State(
        f"{MANY_DESCRIPTORS:,} open descriptors, so that every new one is beyond FD_SETSIZE",
        enter=open_many_descriptors,
        left_out={r"SelectSocket\..*": "a set has no room for such descriptors"},
    ),
    "interval-timer": State(
        "1,000 signals a second, handled without SA_RESTART",
        preload=["interval_timer"],
        left_out={
            r"SendAppleEventOverABus\..*": "libsystemd gives up on a bus when it is interrupted",
            r"Kevent\.(ReturnsZeroWhenTheTimePassesThoughAForgottenDescriptorIsReady"
            r"|SuccessLeavesErrnoAlone)": "a signal ends a wait, by a rule with a test",
            r"Torture\..*": "they number the calls that they let fail, and an interrupted one is made again",
        },
    ),
    "short-transfers": State(
        "reads and writes of one byte, and of a few after the first 10,000",
        preload=["short_transfers"],
        left_out={
            r"ReadPipe\.ReadsWhatIsThereUpToTheSize"
            r"|WritePipe\.(WritesAndReturnsTheNumberOfBytes"
            r"|ReturnsAPartialWriteAndThenAFailureOfAFullNonBlockingPipe)"
            r"|Read\.AppendsWhatTheSocketHolds"
            r"|Write\.(HandsEverythingPendingToOneSend|LogsAFailureOfTheQueueToNoLogger"
            r"|AddsToTheSentCounterUnderTheLockOfTheCountersInsideItsOwn)"
            r"|Corpus\.frame":
                "they state how many bytes a call moves, which is the system's answer",
            r"Torture\.(ConfigurationSurvivesEveryFailureWhileItIsLoadedEditedAndSaved"
            r"|LogLosesNothingButToAFailingFileWhileItRotates)":
                "a write that fails leaves none of a line in them, not a part",
            r"Torture\.(TreeIsKilledWholeOrNotAtAll|PerformanceSessionSurvivesEveryFailure)":
                "they let each call fail in a process of its own, and each byte is a call",
            r"agent\.Jobs\.test_flooding_job_waits_for_a_slow_peer_and_loses_nothing":
                "27 MB can take longer than a peer may be silent",
            r"Torture\.MessageExchangeSurvivesEveryFailure":
                "its host gives up after a few rounds in which no whole message came",
        },
    ),
}


def compile_locale(name, directory):
    language, charset = name.split(".")
    subprocess.run(
        ["localedef", "-i", language, "-f", charset, os.path.join(directory, name)],
        check=True,
        stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL,
    )


class Test:
    """A test as CTest knows it."""

    def __init__(self, described):
        self.name = described["name"]
        self.command = described.get("command")
        if self.command and os.path.basename(self.command[0]).startswith("python3"):
            self.command[0] = PYTHON
        values = {p["name"]: p["value"] for p in described.get("properties", [])}
        self.timeout = values.get("TIMEOUT", LONGEST_TEST)
        self.environment = dict(e.split("=", 1) for e in values.get("ENVIRONMENT", []))
        self.directory = values.get("WORKING_DIRECTORY")


def tests_of(build):
    described = subprocess.run(
        ["ctest", "--test-dir", build, "--show-only=json-v1"],
        check=True,
        capture_output=True,
        text=True,
    ).stdout
    tests = [Test(test) for test in json.loads(described)["tests"]]
    return [test for test in tests if test.command]


class Run:
    """A test that runs in a state, in a process group of its own."""

    def __init__(self, test, state, base_environment, scratch):
        self.test = test
        self.output = tempfile.NamedTemporaryFile(dir=scratch, suffix=".out")
        self.report = self.output.name + ".json"
        self.started = time.monotonic()
        environment = {**base_environment, **test.environment}
        # The standard output may be closed.
        environment["GTEST_OUTPUT"] = "json:" + self.report
        self.pid = os.fork()
        if self.pid == 0:
            self.become_the_test(state, environment)

    def become_the_test(self, state, environment):
        try:
            os.setpgid(0, 0)
            # CTest does so too: whoever started this program may have had signals ignored.
            for number in signal.valid_signals() - {signal.SIGKILL, signal.SIGSTOP}:
                signal.signal(number, signal.SIG_DFL)
            os.chdir(self.test.directory)
            null = os.open(os.devnull, os.O_RDONLY)
            os.dup2(null, 0)
            os.dup2(self.output.fileno(), 1)
            os.dup2(self.output.fileno(), 2)
            os.close(null)
            if state.enter is not None:
                state.enter()
            os.execvpe(self.test.command[0], self.test.command, environment)
        finally:
            os._exit(127)

    def seconds(self):
        return time.monotonic() - self.started

    def stop(self):
        os.killpg(self.pid, signal.SIGKILL)

    def said(self):
        """What it printed, or else what its report says of failures."""
        with open(self.output.name, encoding="utf-8", errors="replace") as stream:
            text = stream.read()
        if "Failure" not in text and os.path.exists(self.report):
            with open(self.report, encoding="utf-8", errors="replace") as stream:
                text += "\n".join(re.findall(r'"failure": "(.*)"', stream.read()))
        return text

    def clean_up(self):
        self.output.close()
        if os.path.exists(self.report):
            os.unlink(self.report)


def run_all(tests, state, environment, scratch):
    """Runs tests, some at once; returns (failed ones with their output, number skipped, seconds
    and name of each)."""
    waiting = list(reversed(tests))
    running = {}
    failed = []
    skipped = 0
    times = []
    while waiting or running:
        while waiting and len(running) < TESTS_AT_ONCE:
            run = Run(waiting.pop(), state, environment, scratch)
            running[run.pid] = run
        pid, status = os.waitpid(-1, os.WNOHANG)
        if pid == 0:
            time.sleep(0.002)
            for run in running.values():
                if run.seconds() > run.test.timeout:
                    run.stop()
            continue
        run = running.pop(pid, None)
        if run is None:
            continue  # an orphan of a test
        times.append((run.seconds(), run.test.name))
        code = os.waitstatus_to_exitcode(status)
        said = run.said()
        if code != 0:
            failed.append((run.test.name, code, said))
        elif "[  SKIPPED ]" in said:
            skipped += 1
        run.clean_up()
    return failed, skipped, times


def run_state(name, state, tests, build, locales):
    started = time.monotonic()
    left_out = {}
    chosen = []
    for test in tests:
        reason = state.reason_to_leave_out(test.name)
        if reason is None:
            chosen.append(test)
        else:
            left_out.setdefault(reason, []).append(test.name)
    environment = {**os.environ, "LOCPATH": locales, "KIV_ENDURANCE_ROOT": build + "/"}
    for variable, value in state.environment.items():
        if value is None:
            environment.pop(variable, None)
        else:
            environment[variable] = value
    if state.preload:
        environment["LD_PRELOAD"] = ":".join(
            f"{build}/tests/endurance/{preload}.so" for preload in state.preload
        )
    with tempfile.TemporaryDirectory(prefix="kiv-suite-") as scratch:
        os.chmod(scratch, 0o777)
        failed, skipped, times = run_all(chosen, state, environment, scratch)
    for test_name, code, said in failed:
        print(f"FAILED in {name}: {test_name} ({code})\n{said}")
    for reason, names in left_out.items():
        print(f"  left out, as {reason}: {len(names)}")
    slowest = [f"{test} {seconds:.0f} s" for seconds, test in sorted(times)[-SHOWN_AS_SLOW:]]
    print("  the slowest: " + ", ".join(reversed(slowest)))
    print(
        f"{name} ({state.about}): {len(chosen) - len(failed)} of {len(chosen)} tests passed"
        f" ({skipped} skipped, {len(tests) - len(chosen)} left out)"
        f" in {time.monotonic() - started:.0f} s",
        flush=True,
    )
    return not failed


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--only", default="", help="tests whose names have this pattern")
    parser.add_argument("build")
    parser.add_argument("states", nargs="*", metavar="STATE", help=", ".join(STATES))
    options = parser.parse_args()
    build = os.path.realpath(options.build)
    tests = [test for test in tests_of(build) if re.search(options.only, test.name)]
    passed = True
    locales = tempfile.mkdtemp(prefix="kiv-locales-")
    os.chmod(locales, 0o755)
    try:
        for locale in ("tr_TR.UTF-8", "de_DE.UTF-8"):
            compile_locale(locale, locales)
        for name in options.states or STATES:
            passed &= run_state(name, STATES[name], tests, build, locales)
    finally:
        shutil.rmtree(locales)
    return 0 if passed else 1


if __name__ == "__main__":
    sys.exit(main())
