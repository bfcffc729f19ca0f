#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""What the tests reach in the renderer library: coverage.py BUILD_DIR REPORT_DIR [JOBS]

Runs the tests of the library and the scenarios in virtual time on the copy of the library that
counts (tests/coverage/), writes REPORT_DIR/index.html and prints one line per folder. Leaves with 1
when a test fails, when fewer lines or branches are reached than LEAST says, when what is not reached
has no reason in tests/coverage/unreached.txt, and when an entry there is out of date.
"""
import collections
import json
import os
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
SETTINGS = ROOT / 'tests/coverage'
LEAST = {'lines': 99.0, 'branches': 97.0}  # per cent, reasons or not
TESTS = '^(renderer|frac|mediasync|videotunnel|display|loader|fault)_'


def play(build, jobs):
    """Runs what is to be counted, and only that."""
    for counts in (build / 'tests/coverage').rglob('*.gcda'):
        counts.unlink()
    environment = {**os.environ, 'LD_LIBRARY_PATH': str(build / 'lib/variants/coverage')}
    tests = subprocess.run(['ctest', '--test-dir', build, '-j', jobs, '-R', TESTS,
                            '--output-on-failure', '--no-tests=error'],
                           env=environment, text=True, stdout=subprocess.PIPE, check=False)
    if tests.returncode:
        print(tests.stdout)
    tests.check_returncode()
    # The soaks play for hours what the others play for seconds.
    scenarios = [path for path in sorted((ROOT / 'scenarios').glob('*.toml'))
                 if not path.name.startswith('soak-')]
    run = subprocess.run([build / 'bin/korvane-tv', 'run', '--jobs', jobs, *scenarios],
                         env=environment, text=True, stdout=subprocess.PIPE, check=False)
    print(*[line for line in run.stdout.splitlines() if not line.startswith('ok ')], sep='\n')
    run.check_returncode()


def measure(build, report):
    """Writes the page; returns {file: [line records of code]}."""
    report.mkdir(parents=True, exist_ok=True)
    subprocess.run(['gcovr', '--config', SETTINGS / 'gcovr.cfg', '--root', ROOT,
                    '--html-details', report / 'index.html', '--json', report / 'coverage.json',
                    '--object-directory', build / 'tests/coverage', build / 'tests/coverage'],
                   check=True)
    files = json.loads((report / 'coverage.json').read_text())['files']
    return {file['file']: [line for line in file['lines'] if not line.get('gcovr/noncode')]
            for file in files}


def read_reasons():
    """(file, part of the line) of each entry; each group of entries has a reason below it."""
    entries, without = [], []
    for line in (SETTINGS / 'unreached.txt').read_text().splitlines():
        if line.startswith(' '):
            without = []
        elif line and not line.startswith('#'):
            entries.append(tuple(line.split(': ', 1)))
            without.append(line)
    return entries, [f'no reason for {line}' for line in without]


def check_reasons(files):
    """What is unreached without a reason, and which reasons are out of date."""
    entries, problems = read_reasons()
    used = set()
    for name, lines in files.items():
        source = (ROOT / name).read_text().splitlines()
        for line in lines:
            missed = sum(branch['count'] == 0 for branch in line['branches'])
            if line['count'] and not missed:
                continue
            text = source[line['line_number'] - 1].strip()
            reasons = {entry for entry in entries if entry[0] == name and entry[1] in text}
            used |= reasons
            if not reasons:
                what = f'{missed} branches not reached' if line['count'] else 'not reached'
                problems.append(f'{name}:{line["line_number"]}: {what}: {text}')
    return problems + [f'tests/coverage/unreached.txt: reached, or gone: {": ".join(entry)}'
                       for entry in entries if entry not in used]


def count(lines):
    """Reached and all, of lines and of branches."""
    branches = [branch for line in lines for branch in line['branches']]
    return {'lines': (sum(line['count'] > 0 for line in lines), len(lines)),
            'branches': (sum(branch['count'] > 0 for branch in branches), len(branches))}


def percent(reached, everything):
    return 100 * reached / everything if everything else 100


def main():
    build, report = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve()
    play(build, sys.argv[3] if len(sys.argv) > 3 else '1')
    files = measure(build, report)

    folders = collections.defaultdict(list)
    for name, lines in files.items():
        folders[name.split('/')[0]] += lines
    everything = [line for lines in folders.values() for line in lines]
    for folder, lines in [*sorted(folders.items()), ('the library', everything)]:
        print(f'{folder:12}', *(f'{what} {reached:4} of {total:4} {percent(reached, total):6.1f} %  '
                                for what, (reached, total) in count(lines).items()))
    print(f'page: {report / "index.html"}')

    problems = check_reasons(files)
    problems += [f'{what}: at least {LEAST[what]} % must be reached'
                 for what, counts in count(everything).items() if percent(*counts) < LEAST[what]]
    print(*problems, sep='\n', end='\n' if problems else '', file=sys.stderr)
    return 1 if problems else 0


if __name__ == '__main__':
    try:
        sys.exit(main())
    except subprocess.CalledProcessError as error:
        sys.exit(f'coverage: failed with status {error.returncode}: {error.cmd[0]}')
