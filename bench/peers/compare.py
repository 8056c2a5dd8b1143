"""Runs every peer on every cell, repetition by repetition, and writes what came out.

usage: compare.py quick|full BUILD-FOLDER OUTPUT-FOLDER [GROUP...]

Within a repetition the peers take turns on each cell, so that all of them see the same machine; who
begins changes from one repetition to the next. In a full run they do so several times for a cell
whose figure is a cost, and the turn in which a peer was least disturbed counts. Each turn is a
process of its own that prints one line of JSON. A process that fails ends the run.
"""

import json
import os
import platform
import subprocess
import sys
import time
from pathlib import Path

import report
from plan import GROUPS

REPETITIONS = 5
TURNS = 3
TIMEOUT_SECONDS = 120


def run_peer(programs, peer, arguments):
    command = [str(programs / f'peer_{peer.program}'), *arguments, *peer.arguments]
    done = subprocess.run(command, capture_output=True, text=True, timeout=TIMEOUT_SECONDS)
    if done.returncode != 0:
        sys.exit(f'{" ".join(command)} ended with {done.returncode}: {done.stderr.strip()}')
    return json.loads(done.stdout)


def turns_of(group, cell, mode):
    return TURNS if mode == 'full' and group.is_cost and 'seconds' in cell.full else 1


# The turns of a repetition share its time.
def arguments_of(cell, mode, turns):
    by_mode = dict(cell.full if mode == 'full' else cell.quick)
    if turns > 1:
        by_mode['seconds'] /= turns
    return [cell.scenario, *cell.arguments, *(f'{key}={value}' for key, value in by_mode.items())]


# One sample per peer: of its best turn.
def repeat_cell(programs, group, cell, mode, repetition):
    turns = turns_of(group, cell, mode)
    peers = cell.peers_in(mode)
    best = {}
    for turn in range(turns):
        first = (repetition + turn) % len(peers)
        for peer in peers[first:] + peers[:first]:
            sample = run_peer(programs, peer, arguments_of(cell, mode, turns))
            key = group.main_metric().key
            if peer.label not in best or sample[key] < best[peer.label][key]:
                best[peer.label] = sample
    return best


def measure(programs, mode, groups):
    for repetition in range(REPETITIONS):
        for group in groups:
            begin = time.monotonic()
            for cell in group.cells:
                best = repeat_cell(programs, group, cell, mode, repetition)
                for label, sample in best.items():
                    yield {'group': group.key, 'cell': cell.title, 'label': label,
                           'repetition': repetition, **sample}
            print(f'repetition {repetition + 1} of {REPETITIONS}, {group.title.lower()}: '
                  f'{time.monotonic() - begin:.1f} s', file=sys.stderr)


def processor_name():
    for line in Path('/proc/cpuinfo').read_text().splitlines():
        if line.startswith('model name'):
            return line.split(':', 1)[1].strip()
    return platform.machine()


def describe_machine():
    return {'processor': processor_name(), 'cores': len(os.sched_getaffinity(0)),
            'kernel': f'{platform.system()} {platform.release()}',
            'date': time.strftime('%Y-%m-%d'),
            'load before the run': f'{os.getloadavg()[0]:.2f}'}


def versions_of(samples):
    versions = {}
    for sample in samples:
        versions.setdefault(sample['peer'], sample['version'])
    return versions


def main():
    if len(sys.argv) < 4 or sys.argv[1] not in ('quick', 'full'):
        sys.exit(__doc__)
    mode, build, folder = sys.argv[1], Path(sys.argv[2]), Path(sys.argv[3])
    wanted = sys.argv[4:]
    groups = [group for group in GROUPS if not wanted or group.key in wanted]
    machine = describe_machine()
    samples = list(measure(build / 'bin', mode, groups))
    run = {'mode': mode, 'repetitions': REPETITIONS, 'machine': machine,
           'versions': versions_of(samples), 'samples': samples}
    folder.mkdir(parents=True, exist_ok=True)
    (folder / 'performance.json').write_text(json.dumps(run) + '\n')
    template = Path(__file__).with_name('performance.md.in')
    results = report.write(run, groups, folder, template)
    print(report.summary(results, groups))
    print(f'written: {folder}/performance.md')


if __name__ == '__main__':
    main()
