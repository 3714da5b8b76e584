#!/usr/bin/env bash
# Mutation testing of the module (KelLib/) and the framework layer (platform/): draws a fixed
# sample of small faults from a seed, puts each one into the source in turn, rebuilds
# build-mutants/ and runs the suite on it. A mutant is killed when a test
# fails or times out; one that does not build is counted apart. Prints each surviving mutant as
#   file:line: <original line> -> <mutated line>
# and last
#   mutants: K killed of N (P%), S survived, C did not compile
# where N counts the mutants that built. Progress goes to stderr.
#
# Usage: scripts/mutants.sh [--count N] [--seed S] [--list] [--only PATH] [--index I,J,...]
#                           [--jobs J] [--test-timeout SECONDS] [--model-sequences N] [--every-test]
#
# --every-test runs the whole suite on each mutant instead of stopping at the first failure, and
# writes every test that kills it into build-mutants/mutant-logs/kills.tsv: which tests alone
# catch a fault, before a suite is reshaped.
#
# The faults, one per mutant, on one line each:
#   - a comparison flipped:   == <-> !=,  < -> >=,  >= -> <,  > -> <=,  <= -> >
#   - && <-> ||
#   - an if condition negated:  if (c) -> if (!(c))
#   - an integer constant off by one:  0 -> 1,  1 -> 0 and 1 -> 2,  N -> N+1
#   - a call statement on a line of its own removed:  x->f(a); -> ;
#   - a returned value changed:  true <-> false,  return e; -> return {};
# Sites are found in the text of the tracked .cpp and .h files with comments, string and
# character literals blanked out; preprocessor lines (macro bodies included), static_assert and
# trace statements are left alone. Binary operators count only with a space on both sides (the
# code's format), which keeps template brackets, ->, <<, <=> and && in T&& out. The sample is
# random.Random(seed).sample over all sites in a fixed order: the same seed on the same tree
# gives the same mutants.
#
# Every mutated file is restored after its mutant, on Ctrl-C or a termination signal too; a run
# killed outright leaves a note in build-mutants/ and the next run puts the file back first.
# The run fails unless KelLib/ and platform/ end as they started (git diff). Do not edit those
# files while it runs.
#
# A mutant in a header rebuilds every file that includes it, so the build is made for rebuilding:
# clang at -O0 without debug information, the outside libraries' headers precompiled once, and
# ccache, which turns the rebuild after a header is put back into cache hits.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
bash scripts/setup.sh ccache
export Q7_MODEL_SEQUENCES=${Q7_MODEL_SEQUENCES:-500}
export CCACHE_DIR="$PWD/build-mutants/ccache" CCACHE_BASEDIR="$PWD"
export CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime

exec python3 - "$@" <<'PY'
import argparse
import fcntl
import hashlib
import os
import random
import re
import signal
import subprocess
import sys
import time

ROOT = os.getcwd()
BUILD = os.path.join(ROOT, 'build-mutants')
LOGS = os.path.join(BUILD, 'mutant-logs')
PENDING = os.path.join(BUILD, 'mutant-pending')          # the path of the file under mutation
PENDING_COPY = os.path.join(BUILD, 'mutant-pending.orig')  # and its text before
FOLDERS = ('KelLib', 'platform')

KEYWORDS = {
    'return', 'throw', 'delete', 'new', 'case', 'goto', 'break', 'continue', 'using', 'typedef',
    'else', 'do', 'if', 'for', 'while', 'switch', 'co_return', 'co_await', 'co_yield', 'operator',
    'static_assert', 'sizeof', 'alignof', 'decltype', 'template', 'typename', 'friend', 'default',
}
COMPARISON = {'==': '!=', '!=': '==', '<': '>=', '>=': '<', '>': '<=', '<=': '>'}
LOGICAL = {'&&': '||', '||': '&&'}


def note(text):
    print(text, file=sys.stderr, flush=True)


class Interrupted(Exception):
    pass


def on_signal(signum, _frame):
    raise Interrupted(signal.Signals(signum).name)


# ------------------------------------------------------------------ finding the sites

def blank_literals_and_comments(text):
    """The text with comments and the insides of string and character literals turned to spaces;
    every character keeps its place, and newlines stay."""
    out = list(text)
    n = len(text)

    def blank(a, b):
        for k in range(a, min(b, n)):
            if out[k] != '\n':
                out[k] = ' '

    def blank_quoted(i, quote):
        """Blanks the literal that opens at i; returns the index after its closing quote."""
        j = i + 1
        while j < n and text[j] not in quote + '\n':
            j += 2 if text[j] == '\\' else 1
        blank(i + 1, j)
        return j + 1

    def word_before(i):
        k = i - 1
        while k >= 0 and (text[k].isalnum() or text[k] == '_'):
            k -= 1
        return text[k + 1:i]

    i = 0
    while i < n:
        c = text[i]
        if text.startswith('//', i):
            j = text.find('\n', i)
            j = n if j < 0 else j
            blank(i, j)
            i = j
        elif text.startswith('/*', i):
            j = text.find('*/', i + 2)
            j = n if j < 0 else j + 2
            blank(i, j)
            i = j
        elif c == '"':
            if word_before(i) in ('R', 'u8R', 'uR', 'UR', 'LR'):
                m = re.compile(r'"([^()\\ \t\n]{0,16})\(').match(text, i)
                if m:
                    close = ')' + m.group(1) + '"'
                    j = text.find(close, m.end())
                    j = n if j < 0 else j + len(close)
                    blank(i + 1, j - 1)
                    i = j
                    continue
            i = blank_quoted(i, '"')
        elif c == "'":
            word = word_before(i)
            if word and word[0].isdigit():  # a digit separator, as in 30'000
                i += 1
                continue
            i = blank_quoted(i, "'")
        else:
            i += 1
    return ''.join(out)


def preprocessor_lines(lines):
    """Indexes of the lines that belong to preprocessor directives, continuations included."""
    found = set()
    continued = False
    for i, line in enumerate(lines):
        if continued or line.lstrip().startswith('#'):
            found.add(i)
            continued = line.rstrip().endswith('\\')
        else:
            continued = False
    return found


def brace_kind(head, parent, before):
    """What a '{' opens: 'type' (namespace, class, enum), 'init' (a braced initializer) or
    'code' (a function body or a block), from the text since the last ; { or } before it."""
    h = ' '.join(head.split())
    if re.search(r'\b(namespace|class|struct|union|enum)\b', h) and \
            not re.search(r'[)\]]\s*(const|noexcept|override|final|mutable|\s)*(->.*)?$', h):
        return 'type'
    if re.search(r'\bextern\s*"', h):
        return 'type'
    if before.isalnum() or before in '_>':
        return 'init'
    if h.endswith(('=', '(', ',', '[', '{')) or re.search(r'\breturn$', h):
        return 'init'
    if h == '' and parent == 'init':
        return 'init'
    return 'code'


def scope_at_line_starts(masked_lines):
    """For each line, the kind of the innermost brace open where it starts."""
    text = '\n'.join(masked_lines)
    kinds = ['type']
    stack = []
    last = -1
    for i, ch in enumerate(text):
        if ch == '\n':
            kinds.append(stack[-1] if stack else 'type')
        elif ch == ';':
            last = i
        elif ch == '{':
            parent = stack[-1] if stack else 'type'
            stack.append(brace_kind(text[last + 1:i], parent, text[i - 1] if i else ' '))
            last = i
        elif ch == '}':
            if stack:
                stack.pop()
            last = i
    return kinds


def balanced_end(m, start, stop_char):
    """Index of the first stop_char at depth 0 from start on this line, or None."""
    depth = 0
    for k in range(start, len(m)):
        ch = m[k]
        if ch in '([{':
            depth += 1
        elif ch in ')]}':
            depth -= 1
            if depth < 0:
                return k if ch == stop_char and depth == -1 and stop_char == ')' else None
        elif ch == stop_char and depth == 0:
            return k
    return None


def top_level_assignment(expr):
    depth = 0
    for k, ch in enumerate(expr):
        if ch in '([{':
            depth += 1
        elif ch in ')]}':
            depth -= 1
        elif ch == '=' and depth == 0:
            before = expr[k - 1] if k else ''
            after = expr[k + 1] if k + 1 < len(expr) else ''
            if before not in '=!<>' and after != '=':
                return True
    return False


def is_call_statement(s):
    """s (a stripped, blanked line) is one call statement: f(a); x->g(); ns::h(b).k(c);"""
    if not s.endswith(');') or not re.match(r'[A-Za-z_]', s):
        return False
    if re.match(r'[A-Z][A-Z0-9_]*\(', s):  # a macro: may expand to anything
        return False
    if re.match(r'[A-Za-z_]\w*', s).group(0) in KEYWORDS:
        return False
    depth = 0
    top = []
    for ch in s:
        if ch in '([{':
            if depth == 0:
                top.append(ch)
            depth += 1
        elif ch in ')]}':
            depth -= 1
            if depth < 0:
                return False
            if depth == 0:
                top.append(ch)
        elif depth == 0:
            top.append(ch)
    if depth:
        return False
    t = ''.join(top)
    # No space at the top level: "T name(args);" declares, "a << b;" is no call.
    if not re.fullmatch(r'[\w:<>.\-()\[\]*&]+\(\);', t):
        return False
    return '-' not in t.replace('->', '')


def statement_may_start(prev):
    """The previous code line (stripped, blanked) ends where a statement can begin."""
    if not prev or prev.endswith((';', '{', '}')):
        return True
    if re.fullmatch(r'(case\b.*|default|public|private|protected)\s*:', prev):
        return True
    if re.fullmatch(r'(\}\s*)?else', prev):
        return True
    return prev.endswith(')') and re.match(r'(\}\s*)?(else\s+)?(if|for|while)\b', prev) is not None


NUMBER = re.compile(r"(?<![\w.'])(\d[\d']*)([uU]?[lL]{0,2}|[lL]{0,2}[uU])(?![\w.'])")
BINARY = re.compile(r'(?<=\s)(==|!=|<=|>=|&&|\|\||<|>)(?=\s)')


def sites_of(path):
    with open(os.path.join(ROOT, path), encoding='utf-8') as f:
        text = f.read()
    lines = text.split('\n')
    masked = blank_literals_and_comments(text).split('\n')
    skip = preprocessor_lines(masked)
    scope_lines = [('' if i in skip else m) for i, m in enumerate(masked)]
    scopes = scope_at_line_starts(scope_lines)
    found = []

    def add(i, start, end, replacement):
        found.append((path, i + 1, start, end, replacement))

    prev = ''
    for i, (line, m) in enumerate(zip(lines, masked)):
        s = m.strip()
        if i in skip or not s:
            continue
        if 'static_assert' in m or 'WEX_TRACE' in m:
            prev = s
            continue
        for op in BINARY.finditer(m):
            table = COMPARISON if op.group(1) in COMPARISON else LOGICAL
            add(i, op.start(), op.end(), table[op.group(1)])
        for cond in re.finditer(r'\bif\s*\(', m):
            close = balanced_end(m, cond.end(), ')')
            if close is None:
                continue
            inner = m[cond.end():close]
            if ';' in inner or top_level_assignment(inner) or not inner.strip():
                continue
            add(i, cond.end() - 1, close + 1, '(!(' + line[cond.end():close] + '))')
        for num in NUMBER.finditer(m):
            digits = num.group(1).replace("'", '')
            if len(digits) > 1 and digits.startswith('0'):  # octal
                continue
            value = int(digits)
            for new in ((1,) if value == 0 else (0, 2) if value == 1 else (value + 1,)):
                add(i, num.start(1), num.end(1), str(new))
        for ret in re.finditer(r'\breturn\b', m):
            semi = balanced_end(m, ret.end(), ';')
            if semi is None:
                continue
            expr = m[ret.end():semi].strip()
            if expr in ('', '*this'):
                continue
            # Already the value {} makes: the mutant would be the same program.
            if re.fullmatch(r'\{\}|nullptr|std::nullopt|0[uUlL]*|[\w:<>, ]+\{\}', expr) or \
                    line[ret.end():semi].strip() == '""':
                continue
            new = {'true': 'false', 'false': 'true'}.get(expr, '{}')
            # A one-line function that returns a reference would return a dangling one.
            if new == '{}' and re.search(r'&\s*(operator\s*\S+?|~?\w+)\s*\(.*\{', m[:ret.start()]):
                continue
            add(i, ret.start(), semi + 1, 'return ' + new + ';')
        if scopes[i] == 'code' and statement_may_start(prev) and is_call_statement(s):
            start = len(m) - len(m.lstrip())
            add(i, start, len(line.rstrip()), ';')
        prev = s
    return found


def source_files(only):
    out = subprocess.run(['git', 'ls-files', '--', *FOLDERS], cwd=ROOT, check=True,
                         capture_output=True, text=True).stdout.split()
    files = sorted(p for p in out if p.endswith(('.cpp', '.h')))
    if only:
        files = [p for p in files if p == only or p.startswith(only.rstrip('/') + '/')]
    return files


def mutated_line(line, site):
    _, _, start, end, replacement = site
    return line[:start] + replacement + line[end:]


def describe(site, lines):
    path, number, *_ = site
    line = lines[number - 1]
    return f'{path}:{number}: {line.strip()} -> {mutated_line(line, site).strip()}'


# ------------------------------------------------------------------ running

def run_logged(cmd, log, timeout=None, env=None):
    """Runs cmd in its own process group, output to log; returns (exit status, timed out).
    The whole group goes on a timeout or an interruption."""
    with open(log, 'w') as out:
        proc = subprocess.Popen(cmd, cwd=ROOT, stdout=out, stderr=subprocess.STDOUT,
                                stdin=subprocess.DEVNULL, start_new_session=True, env=env)
        try:
            return proc.wait(timeout=timeout), False
        except subprocess.TimeoutExpired:
            os.killpg(proc.pid, signal.SIGKILL)
            proc.wait()
            return -9, True
        except BaseException:
            os.killpg(proc.pid, signal.SIGKILL)
            proc.wait()
            raise


def tree_state():
    diff = subprocess.run(['git', 'diff', 'HEAD', '--binary', '--', *FOLDERS], cwd=ROOT,
                          check=True, capture_output=True).stdout
    return hashlib.sha256(diff).hexdigest()


def write_file(path, data):
    blocked = {signal.SIGINT, signal.SIGTERM, signal.SIGHUP}
    signal.pthread_sigmask(signal.SIG_BLOCK, blocked)
    try:
        with open(os.path.join(ROOT, path), 'wb') as f:
            f.write(data)
    finally:
        signal.pthread_sigmask(signal.SIG_UNBLOCK, blocked)


def restore_pending():
    """Puts back a file a previous run left mutated."""
    if not os.path.exists(PENDING):
        return
    with open(PENDING) as f:
        path = f.read().strip()
    with open(PENDING_COPY, 'rb') as f:
        write_file(path, f.read())
    note(f'note: restored {path}, left mutated by an earlier run')
    os.remove(PENDING)
    os.remove(PENDING_COPY)


def failed_tests(log):
    """The tests that failed in a ctest log, each as 'Suite.Name (how)'."""
    with open(log, errors='replace') as f:
        text = f.read()
    # e.g. "Test  #54: Suite.Name ......Subprocess aborted***Exception:   0.87 sec"
    found = [f'{m.group(1)} ({(m.group(2).strip() or m.group(3)).lower()})'
             for m in re.finditer(r'Test\s+#\d+: (\S+) \.*([^.*\n]*)\*\*\*(\w+)', text)]
    return found or ['ctest failed' if 'Error' in text else 'ctest']


def build(jobs, log):
    status, _ = run_logged(['ninja', '-C', BUILD, f'-j{jobs}'], log)
    return status == 0


def run_tests(args, log, timeout):
    status, timed_out = run_logged(
        ['ctest', '--test-dir', BUILD, *([] if args.every_test else ['--stop-on-failure']), f'-j{args.jobs}',
         '--timeout', str(args.test_timeout), '--no-tests=error', '--output-on-failure'],
        log, timeout=timeout)
    return status == 0, timed_out


def main():
    parser = argparse.ArgumentParser(prog='scripts/mutants.sh',
                                     description='Mutation testing of KelLib/ and platform/.')
    parser.add_argument('--count', type=int, default=120, help='mutants in the sample (120)')
    parser.add_argument('--seed', type=int, default=1, help='seed of the sample (1)')
    parser.add_argument('--list', action='store_true', help='print the sample and stop')
    parser.add_argument('--only', metavar='PATH', help='draw from this file or folder only')
    parser.add_argument('--index', metavar='I,J,...',
                        help='run only these mutants of the sample, by their number in it (from 1)')
    parser.add_argument('--jobs', type=int, default=2, help='build and test jobs (2)')
    parser.add_argument('--test-timeout', type=int, default=60, help='seconds per test (60)')
    parser.add_argument('--model-sequences', type=int,
                        help='sequences of the model test (Q7_MODEL_SEQUENCES, else 500)')
    parser.add_argument('--every-test', action='store_true',
                        help='run the whole suite on each mutant; every test that kills it goes to kills.tsv')
    args = parser.parse_args(sys.argv[1:])
    if args.model_sequences is not None:
        os.environ['Q7_MODEL_SEQUENCES'] = str(args.model_sequences)

    lock = None
    if args.list:
        if os.path.exists(PENDING):
            note('warning: a file is still mutated by an interrupted run; a run puts it back')
    else:
        os.makedirs(LOGS, exist_ok=True)
        lock = open(os.path.join(BUILD, 'mutant-lock'), 'w')
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            note('error: another run of scripts/mutants.sh uses build-mutants/')
            return 2
        restore_pending()

    files = source_files(args.only)
    if not files:
        parser.error(f'no .cpp or .h file under {args.only}')
    sites = []
    texts = {}
    for path in files:
        with open(os.path.join(ROOT, path), 'rb') as f:
            texts[path] = f.read()
        sites.extend(sites_of(path))
    sites.sort()
    sample = sorted(random.Random(args.seed).sample(sites, min(args.count, len(sites))))
    total = len(sample)
    if args.index:
        chosen = sorted({int(k) for k in args.index.split(',')})
        if chosen[0] < 1 or chosen[-1] > len(sample):
            parser.error(f'--index: the sample has mutants 1 to {len(sample)}')
        sample = [(k, sample[k - 1]) for k in chosen]
    else:
        sample = list(enumerate(sample, 1))
    lines = {p: t.decode('utf-8').split('\n') for p, t in texts.items()}
    note(f'{len(sites)} sites in {len(files)} files; {total} drawn with seed {args.seed}' +
         (f', {len(sample)} of them run' if args.index else ''))
    if args.list:
        for n, site in sample:
            print(f'{n:3} {describe(site, lines[site[0]])}')
        return 0

    for name in os.listdir(LOGS):
        os.remove(os.path.join(LOGS, name))
    for sig in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(sig, on_signal)
    before = tree_state()

    killed, survived, broken, timings = [], [], [], []
    interrupted = None
    t0 = time.monotonic()
    try:
        note('configuring build-mutants/ (clang -O0, tests on)')
        status, _ = run_logged(
            ['cmake', '-S', ROOT, '-B', BUILD, '-G', 'Ninja', '-DCMAKE_CXX_COMPILER=clang++',
             '-DCMAKE_CXX_COMPILER_LAUNCHER=ccache', '-DCMAKE_BUILD_TYPE=None',
             '-DCMAKE_CXX_FLAGS=-O0', '-DQ7_PRECOMPILE=ON', '-DQ7_TESTS=ON', '-DQ7_BENCH=OFF',
             '-DQ7_FUZZ=OFF', '-DQ7_SANITIZE=', '-DQ7_COVERAGE=OFF', '-DQ7_THREAD_TESTS_ONLY=OFF',
             # The tests load the libraries at run time: no relinking them for a change inside.
             '-DCMAKE_LINK_DEPENDS_NO_SHARED=ON'],
            os.path.join(LOGS, 'configure.log'))
        if status != 0:
            note(f'error: configuring failed; see {LOGS}/configure.log')
            return 2
        note('building and testing the tree as it is')
        if not build(args.jobs, os.path.join(LOGS, 'baseline-build.log')):
            note(f'error: the tree does not build; see {LOGS}/baseline-build.log')
            return 2
        tb = time.monotonic()
        passed, _ = run_tests(args, os.path.join(LOGS, 'baseline-test.log'), None)
        baseline = time.monotonic() - tb
        if not passed:
            note(f'error: the suite fails without a mutant; see {LOGS}/baseline-test.log')
            return 2
        note(f'suite passes in {baseline:.0f}s (model test: {os.environ["Q7_MODEL_SEQUENCES"]} sequences)')
        suite_timeout = max(600.0, 5 * baseline)

        for n, site in sample:
            path = site[0]
            original = texts[path]
            text_lines = original.decode('utf-8').split('\n')
            text_lines[site[1] - 1] = mutated_line(text_lines[site[1] - 1], site)
            label = describe(site, lines[path])
            prefix = f'[{n:3}/{total}]'
            tm = time.monotonic()
            with open(PENDING_COPY, 'wb') as f:
                f.write(original)
            with open(PENDING, 'w') as f:
                f.write(path + '\n')
            try:
                write_file(path, '\n'.join(text_lines).encode('utf-8'))
                build_log = os.path.join(LOGS, f'{n:03}-build.log')
                test_log = os.path.join(LOGS, f'{n:03}-test.log')
                if not build(args.jobs, build_log):
                    broken.append(site)
                    verdict = 'did not compile'
                else:
                    passed, timed_out = run_tests(args, test_log, suite_timeout)
                    if passed:
                        survived.append(site)
                        verdict = 'SURVIVED'
                    else:
                        killed.append(site)
                        by = ['a timeout of the suite'] if timed_out else failed_tests(test_log)
                        verdict = 'killed by ' + (', '.join(by) if args.every_test else by[0])
                    if args.every_test:
                        with open(os.path.join(LOGS, 'kills.tsv'), 'a') as f:
                            f.write(f'{n}\t{label}\t{verdict}\n')
            finally:
                write_file(path, original)
                with open(os.path.join(ROOT, path), 'rb') as f:
                    if f.read() != original:
                        raise SystemExit(f'error: {path} could not be restored; '
                                         f'its text is in {PENDING_COPY}')
                os.remove(PENDING)
                os.remove(PENDING_COPY)
            took = time.monotonic() - tm
            timings.append(took)
            note(f'{prefix} {label}\n          {verdict} ({took:.0f}s)')
    except Interrupted as e:
        interrupted = str(e)
    except KeyboardInterrupt:
        interrupted = 'SIGINT'

    if tree_state() != before:
        note('error: KelLib/ or platform/ differ from how the run found them')
        return 3
    if interrupted:
        note(f'interrupted ({interrupted}) after {len(timings)} mutants; the tree is as it was')
    for site in survived:
        print(describe(site, lines[site[0]]))
    ran = len(killed) + len(survived)
    if timings:
        note(f'time: {time.monotonic() - t0:.0f}s in all, {sum(timings) / len(timings):.0f}s per mutant')
    sys.stdout.flush()
    percent = 100.0 * len(killed) / ran if ran else 0.0
    print(f'mutants: {len(killed)} killed of {ran} ({percent:.1f}%), {len(survived)} survived, '
          f'{len(broken)} did not compile', flush=True)
    return 130 if interrupted else 0


sys.exit(main())
PY
