#!/usr/bin/env python3
"""Plants faults in copies of src/ and counts which of them the tests notice.

A mutant is one small change of one file: a comparison turned round, a bound off by one, a condition
negated, a statement dropped, a constant, a result or an errno replaced, two arguments swapped. The
sites are found by reading tokens, not by a compiler; a change that does not compile, or that leaves
the object file as it was, is thrown away and another takes its place.

Nothing is ever written to the project's own files. Each lane has a copy of the tree and a build of
it, and lives in namespaces of its own: a mutant that makes a test call kill(-1), fork without end
or fill its scratch directory hurts that lane alone, and its processes end with it. All lanes see
their copy under one path, so that one build serves them all.

A mutant meets the test program of its own directory first, every test of it; what survives there
meets the other programs, until one test fails. A failing lone witness is asked twice.
"""

import argparse
import collections
import filecmp
import hashlib
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
WORK = os.path.join(ROOT, 'build', 'mutants')
LANE = os.path.join(WORK, 'lane')  # where every lane sees its own tree and build
LIBRARY = LANE + '/build/src/libiosched.a'
MAX_PROCESSES = 500  # in a lane, counted with the sixty other entries of /proc
MAX_HANGS = 2  # a mutant that hangs this many tests is not run any further

# ---- reading C++ ----

TOKEN = re.compile(r'''
      (?P<skip>\s+|//[^\n]*|/\*.*?\*/)
    | (?P<macro>^[ \t]*\#(?:\\\n|[^\n])*)
    | (?P<text>"(?:\\.|[^"\\\n])*"|'(?:\\.|[^'\\\n])*')
    | (?P<number>\d[\w'.]*)
    | (?P<word>[A-Za-z_]\w*)
    | (?P<op><<=|>>=|->|\+\+|--|<<|>>|&&|\|\||::|[-+*/%&|^=!<>]=|.)''', re.X | re.S | re.M)

Token = collections.namedtuple('Token', 'kind text start end')


def tokens_of(text):
    return [Token(m.lastgroup, m.group(), m.start(), m.end())
            for m in TOKEN.finditer(text) if m.lastgroup not in ('skip', 'macro')]


def matching(tokens):
    """For each opening bracket the index of its closing one, and the reverse."""
    pairs, stack = {}, []
    for i, token in enumerate(tokens):
        if token.text in ('(', '[', '{'):
            stack.append(i)
        elif token.text in (')', ']', '}') and stack:
            j = stack.pop()
            pairs[i], pairs[j] = j, i
    return pairs


def brace_kind(tokens, pairs, i, outer):
    """What a '{' opens: a scope of declarations, a table of data, a block of code or a value."""
    if outer in ('block', 'value'):
        before = tokens[i - 1].text
        starts = before in (')', ';', '{', '}', 'else', 'do', ']', ':')
        return 'block' if starts and outer == 'block' or before in (')', ']') else 'value'
    j, words = i - 1, []  # the words of this declaration that stand outside brackets
    while j >= 0 and tokens[j].text not in (';', '{', '}'):
        if tokens[j].text == ')':
            words.append('()')
            j = pairs[j]
        else:
            words.append(tokens[j].text)
        j -= 1
    if '=' in words:
        return 'data'
    return 'block' if '()' in words else 'scope'


NEGATED = {'==': '!=', '!=': '==', '<': '>=', '>=': '<', '>': '<=', '<=': '>'}
SHIFTED = {'<': '<=', '<=': '<', '>': '>=', '>=': '>'}
ARITHMETIC = {'+': '-', '-': '+', '*': '/', '/': '*', '%': '*', '&': '|', '|': '&', '^': '|',
              '<<': '>>', '>>': '<<', '&&': '||', '||': '&&',
              '+=': '-=', '-=': '+=', '|=': '=', '&=': '=', '*=': '/=', '/=': '*='}
NAMES = {'true': 'false', 'false': 'true', 'POLLIN': 'POLLOUT', 'POLLOUT': 'POLLIN',
         'LOCK_SH': 'LOCK_EX', 'LOCK_EX': 'LOCK_SH', 'LOCK_NB': '0', 'O_CLOEXEC': '0',
         'O_NONBLOCK': '0', 'WNOHANG': '0', 'WUNTRACED': '0', 'SIG_IGN': 'SIG_DFL',
         'SIG_DFL': 'SIG_IGN', 'MAP_SHARED': 'MAP_PRIVATE', 'SPAWN_STDIN': 'SPAWN_STDOUT'}
DECLARES = re.compile(r'[A-Za-z_][\w:]*(?:<[^;()]*>)?[\s*&]+[A-Za-z_]\w*\s*(?:[=;({\[,]|$)')
OWNER = re.compile(r'[A-Z]\w*Guard [a-z]\w*$|ErrnoGuard \w+$')
KEYWORDS = {'if', 'for', 'while', 'do', 'switch', 'case', 'default', 'else', 'return', 'goto',
            'using', 'static', 'constexpr', 'const', 'auto', 'struct', 'class', 'static_assert',
            'typedef', 'template', 'extern', 'public', 'private', 'friend', '[', '{', '}', ';'}


def other_name(word):
    if word in NAMES:
        return NAMES[word]
    if re.fullmatch(r'E(?!OF$|XIT)[A-Z0-9]{3,}', word):
        return 'EDOM'
    if re.fullmatch(r'(SHARED|SCHED)_ERR_\w+', word):
        return 'SHARED_ERR_BUSY' if word != 'SHARED_ERR_BUSY' else 'SHARED_ERR_CORRUPT'
    return None


class Sites:
    """Every place of one file where a fault can be planted: (start, end, replacement, kind)."""

    def __init__(self, text):
        self.text, self.tokens = text, tokens_of(text)
        self.pairs = matching(self.tokens)
        self.found = []
        stack, unused_until = ['scope'], -1
        for i, token in enumerate(self.tokens):
            if token.text == '{':
                stack.append(brace_kind(self.tokens, self.pairs, i, stack[-1]))
            elif token.text == '}' and stack.pop() == 'value':
                continue
            if (token.text, self.ahead(i)) in (('static_assert', '('), ('[', '[')):
                unused_until = self.pairs[i + 1]  # assertions and attributes
            if i <= unused_until:
                continue
            if stack[-1] in ('block', 'value'):
                self.code(i, token)
                if stack[-1] == 'block':
                    self.statement(i)
            elif stack[-1] == 'data' or self.is_constant(i):
                self.constant(i, token)

    def ahead(self, i):
        return self.tokens[i + 1].text if i + 1 < len(self.tokens) else ''

    def add(self, start, end, replacement, kind):
        lines = self.text.count('\n', start, end) - replacement.count('\n')
        replacement += '\n' * lines  # the lines behind it keep their numbers
        self.found.append((start, end, replacement, kind))

    def is_constant(self, i):
        while i > 0 and self.tokens[i - 1].text not in (';', '{', '}'):
            i -= 1
        return self.tokens[i].text in ('constexpr', 'inline')

    def between(self, first, last):
        """The text of tokens[first:last]."""
        return self.text[self.tokens[first].start:self.tokens[last - 1].end]

    def code(self, i, token):
        self.constant(i, token)
        start, end = token.start, token.end
        spaced = self.text[start - 1] in ' \n' and self.text[end:end + 1] in (' ', '\n')
        if token.kind == 'op' and spaced:
            if token.text in NEGATED:
                self.add(start, end, NEGATED[token.text], 'comparison')
            if token.text in SHIFTED:
                self.add(start, end, SHIFTED[token.text], 'bound')
            if token.text in ARITHMETIC:
                self.add(start, end, ARITHMETIC[token.text], 'operator')
            if token.text == '?':
                self.arms(i)
        elif token.text in ('!', '~'):
            self.add(start, end, '', 'negation')
        elif token.text in ('++', '--'):
            self.add(start, end, '--' if token.text == '++' else '++', 'operator')
        elif token.text in ('if', 'while') and self.ahead(i) == '(':
            self.condition(i + 1)
        elif token.kind == 'word' and self.ahead(i) == '(' and self.text[end] == '(':
            self.arguments(i + 1)
        elif token.text == 'return':
            self.result(i)

    def constant(self, i, token):
        if token.kind == 'word' and other_name(token.text):
            self.add(token.start, token.end, other_name(token.text), 'constant')
        if token.kind != 'number' or '.' in token.text:
            return
        digits = re.match(r"0x[\da-fA-F']+|[\d']+", token.text).group()
        value = int(digits.replace("'", ''), 16 if digits.startswith('0x') else 10)
        for other in (value + 1, value - 1):
            if other >= 0:
                self.add(token.start, token.end, f'{other}{token.text[len(digits):]}', 'constant')

    def condition(self, opening):
        first, last = opening + 1, self.pairs[opening]
        texts = [t.text for t in self.tokens[first:last]]
        # A declaration cannot be negated; a lone comparison is turned round anyway.
        if '=' in texts or ';' in texts:
            return
        if not {'&&', '||'} & set(texts) and ('!' in texts or NEGATED.keys() & set(texts)):
            return
        inside = self.between(first, last)
        self.add(self.tokens[first].start, self.tokens[last - 1].end, f'!({inside})', 'condition')

    def arms(self, i):
        middle, j = None, i + 1
        while self.tokens[j].text not in (';', ',', ')', '}', ']'):
            if self.tokens[j].text == ':' and middle is None:
                middle = j
            j = self.pairs[j] if self.tokens[j].text in ('(', '[', '{') else j
            j += 1
        if middle is None or any(t.text == '?' for t in self.tokens[i + 1:j]):
            return
        yes, no = self.between(i + 1, middle), self.between(middle + 1, j)
        self.add(self.tokens[i + 1].start, self.tokens[j - 1].end, f'{no} : {yes}', 'condition')

    def arguments(self, opening):
        begins, j = [opening + 1], opening + 1
        while j < self.pairs[opening]:
            if self.tokens[j].text in ('(', '[', '{'):
                j = self.pairs[j]
            elif self.tokens[j].text == ',':
                begins.append(j + 1)
            j += 1
        bounds = begins + [self.pairs[opening] + 1]
        for a, b, c in zip(bounds, bounds[1:], bounds[2:]):
            first, second = self.between(a, b - 1), self.between(b, c - 1)
            if first != second:
                start, end = self.tokens[a].start, self.tokens[c - 2].end
                self.add(start, end, f'{second}, {first}', 'arguments')

    def result(self, i):
        end, first = self.end_of_statement(i), self.tokens[i + 1]
        lone_constant = end == i + 2 and (first.kind == 'number' or other_name(first.text))
        if end > i + 1 and not lone_constant:
            self.add(first.start, self.tokens[end - 1].end, '{}', 'result')

    def end_of_statement(self, i):
        while i < len(self.tokens) and self.tokens[i].text not in (';', '}'):
            i = self.pairs[i] if self.tokens[i].text in ('(', '[', '{') else i
            i += 1
        return i

    def statement(self, i):
        """Drops the statement that begins behind tokens[i], if one does that can be missed."""
        token, controlled = self.tokens[i], False
        if token.text == ')':
            controlled = self.tokens[self.pairs[i] - 1].text in ('if', 'while', 'for')
        if not controlled and token.text not in (';', '{', '}', 'else', 'do'):
            return
        if token.text == ';' and self.inside_brackets(i):
            return  # a part of a for
        following, end = self.ahead(i), self.end_of_statement(i + 1)
        exits = following == 'return' and controlled
        if following in KEYWORDS and not exits or end == len(self.tokens):
            return
        if self.tokens[end].text != ';':
            return
        words = self.between(i + 1, end)
        if DECLARES.match(words) and not exits and not OWNER.match(words):
            return
        self.add(self.tokens[i + 1].start, self.tokens[end].end, ';', 'statement')

    def inside_brackets(self, i):
        while i >= 0 and self.tokens[i].text not in ('{', '}'):
            if self.tokens[i].text == '(':
                return True
            i = self.pairs[i] - 1 if self.tokens[i].text == ')' else i - 1
        return False


# ---- a lane: one copy of the tree, its build, and what runs in them ----


def outcome(program, test, seconds):
    """Runs one test in a process of its own: 'ok', 'fail' or 'hang'."""
    env = dict(os.environ, TEST_TMPDIR=LANE + '/tmp/', TMPDIR=LANE + '/tmp')
    run = subprocess.Popen([program, '--gtest_filter=' + test], cwd=os.path.dirname(program),
                           env=env, start_new_session=True, stdin=subprocess.DEVNULL,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        return 'ok' if run.wait(seconds) == 0 else 'fail'
    except subprocess.TimeoutExpired:
        return 'hang'
    finally:
        run.kill()
        run.wait()


def end_leftovers():
    """Ends every process of the lane but the lane itself, and empties its scratch directory."""
    kill_all()
    try:
        while True:
            os.waitpid(-1, 0)  # orphans come to the first process of their namespace
    except ChildProcessError:
        pass
    for name in os.listdir(LANE + '/tmp'):
        subprocess.run(['rm', '-rf', '--one-file-system', f'{LANE}/tmp/{name}'], check=False)


def kill_all():
    if os.getpid() != 1:
        sys.exit('mutants: not in a namespace of its own')  # this would end the whole machine
    try:
        os.kill(-1, signal.SIGKILL)  # all at once: processes that fork without end included
    except ProcessLookupError:
        pass


def watch():
    """Ends whatever a mutant has run wild with, before the machine feels it."""
    while True:
        time.sleep(0.05)
        with open('/proc/meminfo', encoding='ascii') as file:
            total, _, available = (int(line.split()[1]) for line in file.readlines()[:3])
        if len(os.listdir('/proc')) > MAX_PROCESSES or available < total // 8:
            kill_all()


def names_of_tests(program):
    listed = subprocess.run([program, '--gtest_list_tests'], capture_output=True, text=True,
                            check=True).stdout
    suite, names = '', []
    for line in listed.splitlines():
        if line.startswith('  '):
            names.append(suite + line.split('#')[0].strip())
        elif line.endswith('.') or '.  #' in line:
            suite = line.split('#')[0].strip()
    return names


def lane_baseline(job):
    """How long each test takes without a fault; None for one that fails."""
    program, seconds = job['program'], {}
    for test in names_of_tests(program):
        began = time.monotonic()
        good = outcome(program, test, 60) == 'ok'
        seconds[test] = time.monotonic() - began if good else None
    end_leftovers()
    return seconds


def ninja(targets, jobs='1'):
    return subprocess.run(['ninja', '-C', LANE + '/build', '-j', jobs, *targets],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)


def fingerprint(path):
    with open(path, 'rb') as file:
        return hashlib.sha256(file.read()).hexdigest()


def lane_mutant(job):
    """Plants the fault and runs the tests: {'verdict': ..., 'kills': {test: 'fail' or 'hang'}}."""
    path = f'{LANE}/tree/{job["file"]}'
    with open(path, encoding='utf-8') as file:
        text = file.read()
    try:
        with open(path, 'w', encoding='utf-8') as file:
            file.write(text[:job['start']] + job['replacement'] + text[job['end']:])
        return judge(job)
    finally:
        with open(path, 'w', encoding='utf-8') as file:
            file.write(text)
        end_leftovers()


def judge(job):
    kills = {}
    for program in job['programs']:
        if kills:
            break
        if ninja([os.path.basename(program['path'])]).returncode != 0:
            return {'verdict': 'does not compile'}
        if fingerprint(LIBRARY) == job['library']:
            return {'verdict': 'changes nothing'}
        run_program(program, kills)
    return {'verdict': 'killed' if kills else 'survived', 'kills': kills}


def run_program(program, kills):
    for test, seconds in program['tests']:
        result = outcome(program['path'], test, 5 + 5 * seconds)
        if result != 'ok':
            end_leftovers()
            kills[test] = result
        if kills and program['first'] or list(kills.values()).count('hang') >= MAX_HANGS:
            break
    if len(kills) == 1:  # a lone witness may have stumbled over the machine's load
        test = next(iter(kills))
        if outcome(program['path'], test, 5 + 5 * dict(program['tests'])[test]) == 'ok':
            del kills[test]
        end_leftovers()


def lane_prepare(job):
    """Configures and builds the copied tree."""
    configure = ['cmake', '-S', LANE + '/tree', '-B', LANE + '/build', '-G', 'Ninja',
                 '-DCMAKE_BUILD_TYPE=None', '-DCMAKE_CXX_FLAGS=-O1', '-DCMAKE_C_FLAGS=-O1',
                 '-DIOSCHED_WERROR=OFF']
    done = subprocess.run(configure, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        return done.stdout + done.stderr
    built = ninja(job['targets'], job['jobs'])
    return built.stdout if built.returncode != 0 else None


def lane(number):
    """The first process of a lane's namespaces: does one job for each line of standard input."""
    subprocess.run(['mount', '--bind', f'{WORK}/lane{number}', LANE], check=True)
    os.makedirs(LANE + '/tmp', exist_ok=True)
    subprocess.run(['mount', '-t', 'tmpfs', '-o', 'size=512m', 'tmpfs', LANE + '/tmp'], check=True)
    threading.Thread(target=watch, daemon=True).start()
    jobs = {'prepare': lane_prepare, 'baseline': lane_baseline, 'mutant': lane_mutant}
    for line in sys.stdin:
        job = json.loads(line)
        print(json.dumps(jobs[job['do']](job)), flush=True)


class Lane:
    """A lane as the main process sees it."""

    def __init__(self, number):
        command = ['unshare', '--mount', '--pid', '--fork', '--mount-proc', '--kill-child',
                   sys.executable, os.path.abspath(__file__), '--lane', str(number)]
        if os.geteuid() != 0:
            command[1:1] = ['--user', '--map-root-user']
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True, start_new_session=True)

    def do(self, what, **job):
        self.process.stdin.write(json.dumps(dict(job, do=what)) + '\n')
        self.process.stdin.flush()
        answer = self.process.stdout.readline()
        if not answer:
            raise RuntimeError('a lane has ended; it needs root, or namespaces for users')
        return json.loads(answer)

    def end(self):
        self.process.kill()
        self.process.wait()


# ---- the main process ----


def copy_tree():
    """Brings lane 0's copy of the sources up to date; what is the same keeps its time."""
    target = f'{WORK}/lane0/tree'
    wanted = set()
    for top in sorted(os.listdir(ROOT)):
        if top in ('build', 'out') or top.startswith('.'):
            continue
        for folder, _, files in os.walk(os.path.join(ROOT, top)) if os.path.isdir(
                os.path.join(ROOT, top)) else [(ROOT, [], [top])]:
            for name in files:
                source = os.path.join(folder, name)
                copy = os.path.join(target, os.path.relpath(source, ROOT))
                wanted.add(copy)
                os.makedirs(os.path.dirname(copy), exist_ok=True)
                if not os.path.exists(copy) or not filecmp.cmp(source, copy, shallow=False):
                    shutil.copyfile(source, copy)
                    shutil.copymode(source, copy)
    for folder, _, files in os.walk(target):
        for name in files:
            if os.path.join(folder, name) not in wanted:
                os.remove(os.path.join(folder, name))


def outside(path):
    """A path in lane 0 as it is called outside the lanes."""
    return path.replace(LANE, WORK + '/lane0', 1)


def test_programs():
    """The test program of each directory of tests/: {directory: its path in a lane}."""
    tests = os.path.join(ROOT, 'tests')
    found = {}
    for name in sorted(os.listdir(tests)):
        lists = os.path.join(tests, name, 'CMakeLists.txt')
        if os.path.isfile(lists) and f'iosched_add_tests({name}' in open(lists).read():
            found[name] = f'{LANE}/build/tests/{name}/iosched_{name}_tests'
    return found


def start_lanes(count, programs):
    """Builds lane 0 and makes the others from it."""
    for number in range(count):
        os.makedirs(f'{WORK}/lane{number}', exist_ok=True)
    os.makedirs(LANE, exist_ok=True)
    copy_tree()
    lanes = [Lane(0)]
    targets = [os.path.basename(path) for path in programs.values()]
    log = lanes[0].do('prepare', targets=targets, jobs=str(count))
    if log is not None:
        lanes[0].end()
        raise SystemExit('mutants: the tree does not build\n' + log[-4000:])
    for number in range(1, count):
        shutil.rmtree(f'{WORK}/lane{number}')
        subprocess.run(['cp', '-a', f'{WORK}/lane0', f'{WORK}/lane{number}'], check=True)
        lanes.append(Lane(number))
    return lanes


def in_lanes(lanes, work):
    """Runs work(lane) for each lane at once. One that fails ends all of them."""
    errors = []

    def guarded(lane_):
        try:
            work(lane_)
        except (RuntimeError, OSError, ValueError) as error:
            errors.append(error)
            for one in lanes:
                one.end()

    threads = [threading.Thread(target=guarded, args=(one,), daemon=True) for one in lanes]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if errors:
        raise SystemExit(f'mutants: {errors[0]}')


def baselines(lanes, programs):
    """The time of every test without a fault, remembered as long as its program is the same."""
    memory = WORK + '/baselines.json'
    try:
        with open(memory, encoding='utf-8') as file:
            known = json.load(file)
    except (OSError, ValueError):
        known = {}
    prints = {name: fingerprint(outside(path)) for name, path in programs.items()}
    waiting = [name for name in programs if prints[name] not in known]

    def measure(lane_):
        while waiting:
            name = waiting.pop()
            known[prints[name]] = lane_.do('baseline', program=programs[name])

    in_lanes(lanes, measure)
    known = {prints[name]: known[prints[name]] for name in programs}
    with open(memory, 'w', encoding='utf-8') as file:
        json.dump(known, file)
    for name in programs:
        for test, seconds in known[prints[name]].items():
            if seconds is None:
                print(f'left out, it fails without any fault: {name}/{test}')
    return {name: {t: s for t, s in known[prints[name]].items() if s is not None}
            for name in programs}


def all_mutants(path):
    """Every mutant of the sources below a path, as the jobs that lanes take."""
    top = os.path.join(ROOT, path)
    files = [top] if os.path.isfile(top) else sorted(
        os.path.join(folder, name) for folder, _, names in os.walk(top) for name in names)
    jobs = []
    for file in files:
        if not file.endswith(('.cpp', '.h')):
            continue
        with open(file, encoding='utf-8') as source:
            text = source.read()
        for start, end, replacement, kind in Sites(text).found:
            jobs.append({'file': os.path.relpath(file, ROOT), 'start': start, 'end': end,
                         'replacement': replacement, 'kind': kind,
                         'line': text.count('\n', 0, start) + 1, 'text': text})
    return jobs


def survivors_of(file):
    """The survivors of a former run, from its matrix of kills, as jobs."""
    with open(file, encoding='utf-8') as former:
        jobs = [mutant for mutant in json.load(former) if mutant['verdict'] == 'survived']
    for job in jobs:
        path = os.path.join(ROOT, job['file'])
        if job.get('source') != fingerprint(path):
            sys.exit(f'{file}: {job["file"]} has changed since; plant anew, without --again')
        with open(path, encoding='utf-8') as source:
            job['text'] = source.read()
    return jobs


def ordered_programs(file, programs, times, first_kill):
    """The programs that a mutant of the file meets: the one of its own directory, then the rest."""
    own = file.split('/')[1] if file.count('/') > 1 else ''
    order = sorted(programs, key=lambda name: (name != own, sum(times[name].values())))
    result = []
    for name in order:
        tests = list(times[name].items())
        first = first_kill or name != own
        result.append({'path': programs[name], 'first': first,
                       'tests': sorted(tests, key=lambda t: t[1]) if first else tests})
    return result


def run_all(lanes, mutants, count, order):
    """Has the lanes judge mutants in their order until so many have counted."""
    library = fingerprint(outside(LIBRARY))
    lock, queue, done, pending = threading.Condition(), iter(mutants), [], [0]

    def counted():
        return sum(m['verdict'] in ('killed', 'survived') for m in done)

    def take():
        with lock:
            while pending[0] > 0 and counted() + pending[0] >= count:
                lock.wait()
            mutant = next(queue, None) if counted() < count else None
            pending[0] += mutant is not None
            return mutant

    def put(mutants_):
        with lock:
            pending[0] -= 1
            done.extend(mutants_)
            lock.notify_all()
            for mutant in mutants_:
                if mutant['verdict'] == 'survived':
                    show(mutant)
            if sys.stderr.isatty():
                print(f'{counted()} of {count}', end='\r', file=sys.stderr)

    def work(lane_):
        while (mutant := take()) is not None:
            judged = []
            try:
                job = {key: mutant[key] for key in ('file', 'start', 'end', 'replacement')}
                programs = order(mutant['file'])
                answer = lane_.do('mutant', library=library, programs=programs, **job)
                judged = [dict(mutant, **answer)]
            finally:
                put(judged)

    in_lanes(lanes, work)
    return sorted(done, key=lambda m: (m['file'], m['start'], m['end'], m['replacement']))


def show(mutant):
    text, start, end = mutant['text'], mutant['start'], mutant['end']
    first = text.rfind('\n', 0, start) + 1
    last = text.find('\n', end)
    old = text[first:last]
    new = (text[first:start] + mutant['replacement'] + text[end:last]).rstrip()
    print(f'{mutant["file"]}:{mutant["line"]}  {mutant["kind"]}')
    for sign, lines in (('-', old), ('+', new)):
        for line in lines.splitlines():
            print(f'  {sign}{line}', flush=True)


def report(done, seconds, full):
    killed = [m for m in done if m['verdict'] == 'killed']
    survivors = [m for m in done if m['verdict'] == 'survived']
    counted = len(killed) + len(survivors)
    score = 100 * len(killed) / counted if counted else 100.0
    print(f'{counted} mutants, {len(done) - counted} more thrown away, {seconds:.0f} s: '
          f'{len(killed)} killed, {len(survivors)} survived, score {score:.1f} %')
    if full and killed:
        report_tests(killed)
    return score


def report_tests(killed):
    """Which tests do the killing, and how many could go without losing a kill."""
    sizes = sorted(len(m['kills']) for m in killed)
    print(f'tests that kill a mutant: median {sizes[len(sizes) // 2]}, '
          f'mean {sum(sizes) / len(sizes):.1f}; by one test alone {sizes.count(1)}')
    by_test = collections.defaultdict(set)
    for number, mutant in enumerate(killed):
        for test in mutant['kills']:
            by_test[test].add(number)
    spare = [t for t, kills in by_test.items()
             if all(len(killed[number]['kills']) > 1 for number in kills)]
    enough, open_ = [], set(range(len(killed)))
    while open_:
        best = max(sorted(by_test), key=lambda t: len(by_test[t] & open_))
        enough.append(best)
        open_ -= by_test[best]
    print(f'{len(by_test)} tests kill; {len(spare)} of them nothing that no other does; '
          f'these {len(enough)} make all the kills:')
    for test in enough:
        print(f'  {len(by_test[test]):4} {test}')


def main():
    parser = argparse.ArgumentParser(prog='./run mutants', description=__doc__.split('\n')[0])
    parser.add_argument('count', nargs='?', type=int, default=100, help='mutants that compile')
    parser.add_argument('seed', nargs='?', default='1', help='another seed, other mutants')
    parser.add_argument('path', nargs='?', default='src', help='file or directory below src/')
    parser.add_argument('--first', action='store_true', help='stop each at the first test failing')
    parser.add_argument('--again', metavar='KILLS', help='only the survivors of that kills.json')
    parser.add_argument('--least', type=float, default=0, help='fail below this score in percent')
    parser.add_argument('--lanes', type=int, default=os.cpu_count(), help='how many at a time')
    parser.add_argument('--lane', type=int, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.lane is not None:
        return lane(options.lane)

    began, lanes, programs = time.monotonic(), [], test_programs()
    mutants = survivors_of(options.again) if options.again else all_mutants(options.path)
    random.Random(options.seed).shuffle(mutants)
    try:
        lanes = start_lanes(options.lanes, programs)
        times = baselines(lanes, programs)
        print(f'{len(mutants)} possible mutants of {options.path}; prepared after '
              f'{time.monotonic() - began:.0f} s', flush=True)
        done = run_all(lanes, mutants, options.count,
                       lambda file: ordered_programs(file, programs, times, options.first))
    finally:
        for one in lanes:
            one.end()
    score = report(done, time.monotonic() - began, not options.first)
    with open(WORK + '/kills.json', 'w', encoding='utf-8') as file:
        json.dump([{k: v for k, v in m.items() if k != 'text'} |
                   {'source': fingerprint(os.path.join(ROOT, m['file']))} for m in done], file, indent=1)
    print(f'the matrix of kills: {os.path.relpath(WORK, ROOT)}/kills.json')
    return 0 if score >= options.least else 1


if __name__ == '__main__':
    sys.exit(main())
