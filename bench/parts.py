"""The parts of the benchmarks. Each boots its camera, measures by turns and adds its rows to the table."""

from __future__ import annotations

import json
import tempfile
import time
from collections.abc import Sequence
from statistics import median

from camlab.daemon import Daemon
from camlab.programs import build_folder
from changes import measure_boot, measure_lease, measure_settings
from laboratory import (
    ADDRESSES,
    DAEMON_ENVIRONMENT,
    FOLDER,
    MTU,
    UNIT_ENVIRONMENT,
    Bench,
    all_keys,
    bench,
    echo,
    fresh_network,
    get_request,
    memory,
    processor_time,
    quarn,
    require_success,
    require_values,
    seconds_to_end,
    seconds_to_ready,
    switches,
)
from client_start import measure_client
from table import Table, duration


def measure_get(table: Table, quick: bool) -> None:
    """Round trips of api_get, each against a round trip of the echo daemon."""
    stored = all_keys("read_setting")
    requests = {
        "api_get of a stored key": [MTU],
        "api_get of a boot-environment key": ["[IPv6]Enabled"],
        "api_get of a live key, [NIC/eth0]MAC": ["[NIC/eth0]MAC"],
        "api_get of a live key, [IPv4/Actual]Address": ["[IPv4/Actual]Address"],
        **{f"api_get of {count} stored keys": stored[:count] for count in (10, 50, len(stored))},
        f"api_get of all {len(all_keys())} keys but the probing one": all_keys(),
    }
    targets = {"api_get of a stored key": 1.10, list(requests)[-1]: 6.0}
    texts = [get_request(keys) for keys in requests.values()]
    with bench() as here:
        here.start()
        here.hold_back()
        require_success(here.camera.api_set({MTU: 1400}))
        for (what, keys), text in zip(requests.items(), texts):
            times, answers = here.by_turns(*((10, 10) if quick else (200, 20)), [quarn("api_get", text), echo(texts[0])])
            require_values(answers[0], keys)
            table.ratio(what, times[0], times[1], "echo", targets.get(what))
        measure_growth(here, table, quick, stored)


def measure_growth(here: Bench, table: Table, quick: bool, stored: Sequence[str]) -> None:
    """Whether twice the keys cost twice the time."""
    counts = [1, 10, 50, len(stored)]
    texts = [get_request(stored[:count]) for count in counts]
    times, _ = here.by_turns(10 if quick else 200, 10, [quarn("api_get", text) for text in texts])
    more = [(times[i + 1] - times[i]) / (counts[i + 1] - counts[i]) for i in range(3)]
    table.ratio(f"one more stored key, from {counts[2]} to {counts[3]}", more[2], more[1],
                f"from {counts[1]} to {counts[2]}", 1.5)  # fmt: skip
    unknown = [get_request([f"[No/Such]Key{n}" for n in range(count)]) for count in (1000, 10_000)]
    times, answers = here.by_turns(2 if quick else 20, 1, [quarn("api_get", text) for text in unknown])
    if [len(json.loads(answer)["errors"]) for answer in answers] != [1000, 10_000]:
        raise SystemExit("an unknown key was left without its error")
    table.ratio("api_get of 10,000 unknown keys", times[1], times[0], "of 1,000", 15.0)


def measure_rate(table: Table, quick: bool) -> None:
    """How many calls of api_get are answered in a second while nothing is applied."""
    clients, rounds = 4, 20 if quick else 500
    with bench() as here:
        here.start()
        here.hold_back()
        for what, keys in (("a stored key", [MTU]), (f"all {len(all_keys())} keys but the probing one", all_keys())):
            text = get_request(keys)
            for count in (1, clients):
                rate = here.rate(count, rounds, quarn("api_get", text))
                compared = f"echo {here.rate(count, rounds, echo(text)):.0f}/s"
                from_where = "one client" if count == 1 else f"{count} clients at once"
                table.amount(f"api_get of {what}, {from_where}", round(rate), "requests/s", compared)


def measure_set(table: Table, quick: bool) -> None:
    """api_set of one key, stored and not carried out, against one commit of its size and one echo."""
    (build_folder() / "bench").mkdir(exist_ok=True)
    with tempfile.TemporaryDirectory(dir=build_folder() / "bench") as disk:
        with bench(store_folder=disk) as here:
            here.start()
            here.hold_back()
            texts = [json.dumps({MTU: mtu}) for mtu in (1400, 1500)]
            cases = [
                quarn("api_set", *texts),
                "\n".join(["commit", "/var/lib/quarn/compared.db", "1400", "1500"]),
                echo(texts[0]),
            ]
            times, answers = here.by_turns(20 if quick else 500, 1, cases)
    require_success(json.loads(answers[0]))
    table.ratio("api_set that stores one key", times[0], times[1] + times[2], "commit + echo", 1.3)
    table.note(f"commit alone: {duration(times[1])}; echo alone: {duration(times[2])}; both on the disk of the build.")


def measure_apply(table: Table, quick: bool) -> None:
    """The start-up apply and an address change, against system() with the same texts."""
    with bench() as here:
        measure_start(here, table, 3 if quick else 100)
        measure_change(here, table, 3 if quick else 150)


def measure_start(here: Bench, table: Table, rounds: int) -> None:
    """From the start of the daemon to READY=1, against the sequence and what it costs to come onto the bus."""
    camera = here.camera
    here.start_first_time()
    camera.recorder.switch_on()
    fresh_network(camera)
    here.forget_last_run()
    camera.start_daemon(environment=UNIT_ENVIRONMENT)
    camera.wait_ready()
    camera.stop_daemon()
    camera.recorder.switch_off()
    commands = here.commands_of_last_run("start")
    expected = [command.status for command in camera.commands()]
    camera.write_file(f"{FOLDER}/nothing", "")
    sequence = Daemon(camera, "/usr/bin/bench-system-sequence")
    bare = Daemon(camera, "/usr/bin/bench-echo-with-libraries")
    samples: dict[str, list[float]] = {"daemon": [], "sequence": [], "nothing": [], "bare": [], "echo": []}
    for _ in range(rounds):
        fresh_network(camera)
        samples["daemon"].append(seconds_to_ready(camera.daemon, UNIT_ENVIRONMENT))
        camera.stop_daemon()
        fresh_network(camera)
        samples["sequence"].append(seconds_to_end(sequence, commands))
        statuses = [int(status) for status in sequence.stdout().split()]
        if statuses != expected:
            raise SystemExit(f"the daemon's commands ended with {expected}, the sequence's with {statuses}")
        samples["nothing"].append(seconds_to_end(sequence, f"{FOLDER}/nothing"))
        for name, daemon in (("bare", bare), ("echo", here.echo)):
            samples[name].append(seconds_to_ready(daemon, DAEMON_ENVIRONMENT))
            daemon.stop()
    times = {name: median(values) for name, values in samples.items()}
    table.ratio("start to READY=1, with the start-up apply", times["daemon"], times["sequence"], "system()")
    # One start of a program is in both.
    compared = times["sequence"] - times["nothing"] + times["bare"]
    table.ratio("the same", times["daemon"], compared, "system() in a bare daemon", 1.03)
    table.note(
        f"start-up apply: {len(expected)} commands. A bare daemon with the libraries of the real one is ready after"
        f" {duration(times['bare'])}, one with the bus library alone after {duration(times['echo'])};"
        f" a program that does nothing has ended after {duration(times['nothing'])}."
    )


def measure_change(here: Bench, table: Table, rounds: int) -> None:
    """An api_set of the address, against the sequence of its commands and an echo."""
    camera = here.camera
    here.start()
    texts = [json.dumps({"[IPv4/Manual]Address": address}) for address in reversed(ADDRESSES)]
    files = here.record_changes("address", texts)
    # Blocks of two: each leaves the address as it found it.
    times, answers = here.by_turns(rounds, 2, [quarn("api_set", *texts), echo(*files, method="run")])
    require_success(json.loads(answers[0]))
    table.ratio("api_set that changes the address", times[0], times[1], "call that runs system()", 1.03)
    here.hold_back()
    saving, _ = here.by_turns(rounds, 2, [quarn("api_set", *texts), echo(texts[0])])
    table.note(
        f"address change: {len(camera.commands())} commands; {duration(times[0] - times[1])} beside them, of which"
        f" {duration(saving[0] - saving[1])} store the address (in memory here, so no sync counts) and write the"
        " boot environment, when nothing has cooled the caches; the rest compares and announces addresses."
    )


def measure_memory(table: Table, quick: bool) -> None:
    """Memory before and after many calls, and processor time for a call."""
    rounds = 40 if quick else 2000
    with bench() as here:
        here.start()
        here.hold_back()
        daemons = {"quarn": here.camera.daemon, "echo": here.echo}
        here.wait_idle()
        before = {name: memory(daemon) for name, daemon in daemons.items()}
        get, get_all = quarn("api_get", get_request([MTU])), quarn("api_get", get_request(all_keys()))
        toggle = quarn("api_set", *(json.dumps({MTU: mtu}) for mtu in (1400, 1500)))
        calls = [*[get] * 49, get_all, toggle]
        here.by_turns(rounds // 10 - 1, 1, calls)
        here.wait_idle()
        in_use = memory(here.camera.daemon)
        here.by_turns(rounds - rounds // 10 - 1, 1, calls)
        here.by_turns(rounds - 1, 50, [echo(get_request([MTU]))])
        here.wait_idle()
        after = {name: memory(daemon) for name, daemon in daemons.items()}
        used = {name: processor_time(daemon) for name, daemon in daemons.items()}
        turns = rounds // 10
        here.by_turns(turns - 1, 50, [get, echo(get_request([MTU]))])
        used = {name: (processor_time(daemon) - used[name]) / (turns * 50) for name, daemon in daemons.items()}
    gets = f"{50 * rounds:,} gets, {rounds:,} sets"
    for field, target in (("Anonymous", 700), ("Rss", None)):
        compared = f"echo {before['echo'][field]} kB, then {after['echo'][field]} kB"
        table.amount(f"memory, {field}, after the start", before["quarn"][field], "kB", compared, target)
        table.amount(f"memory, {field}, after {gets}", after["quarn"][field], "kB", "", target)
    growth = after["quarn"]["Anonymous"] - in_use["Anonymous"]
    table.amount("memory, Anonymous, growth over the last nine tenths of them", growth, "kB", "", 0)
    table.ratio("processor time of api_get of a stored key", used["quarn"], used["echo"], "echo")


def measure_idle(table: Table, quick: bool) -> None:
    """Wake-ups and processor time while nothing happens."""
    seconds = 3 if quick else 20
    with bench() as here:
        here.start()
        here.wait_idle()
        daemons = (here.camera.daemon, here.echo)
        before = [(switches(daemon), processor_time(daemon)) for daemon in daemons]
        time.sleep(seconds)
        (woken, used), (echo_woken, echo_used) = [
            (switches(daemon) - earlier, processor_time(daemon) - time_earlier)
            for daemon, (earlier, time_earlier) in zip(daemons, before)
        ]
    table.amount(f"wake-ups in {seconds} s of idling", woken, "times", f"echo {echo_woken}", 0)
    table.amount("processor time meanwhile", used * 1e6, "us", f"echo {echo_used * 1e6:g} us", 0)


def measure_size(table: Table, quick: bool) -> None:
    """The size of what is installed."""
    del quick
    table.amount("stripped binary", round((build_folder() / "quarn.stripped").stat().st_size / 1024), "kB")


PARTS = {
    "get": measure_get,
    "rate": measure_rate,
    "set": measure_set,
    "apply": measure_apply,
    "settings": measure_settings,
    "lease": measure_lease,
    "boot": measure_boot,
    "client": measure_client,
    "memory": measure_memory,
    "idle": measure_idle,
    "size": measure_size,
}
