"""What the side-by-side benchmarks run: peers, cells, and the targets of xelsch."""

from dataclasses import dataclass, field


@dataclass(frozen=True)
class Peer:
    """One line of a table: a program, and the arguments that make it this peer."""
    label: str
    program: str
    arguments: tuple = ()


@dataclass(frozen=True)
class Metric:
    key: str
    title: str
    digits: int = 0
    more_is_better: bool = False


@dataclass(frozen=True)
class Target:
    """At most (with more_is_better: at least) limit times the best of the peers named."""
    metric: str
    peers: tuple
    limit: float


@dataclass(frozen=True)
class Cell:
    """One scenario with one set of arguments; every peer runs it once per repetition."""
    title: str
    scenario: str
    arguments: tuple
    peers: tuple
    targets: tuple = ()
    quick: dict = field(default_factory=dict)  # arguments that depend on the mode
    full: dict = field(default_factory=dict)
    slow: tuple = ()  # peers that a quick run leaves out

    def peers_in(self, mode):
        return tuple(peer for peer in self.peers if mode == 'full' or peer not in self.slow)


@dataclass(frozen=True)
class Group:
    key: str
    title: str
    metrics: tuple
    cells: tuple
    main: str = ''  # the metric of charts and ratios; empty: the first one
    # xelsch costs the same when the size grows: metric, small cell, large cell, limit.
    flat: tuple = ()
    is_cost: bool = False  # the main metric is a cost that disturbances only add to

    def main_metric(self):
        return self.metric(self.main or self.metrics[0].key)

    def metric(self, key):
        return next(metric for metric in self.metrics if metric.key == key)


OURS = Peer('xelsch', 'xelsch')
FLOOR = Peer('floor', 'floor')
LIBEV = Peer('libev', 'libev')
LIBEVENT = Peer('libevent', 'libevent')
LIBEVENT_ONE = Peer('libevent, max_callbacks=1', 'libevent', ('one=1',))
LIBUV = Peer('libuv', 'libuv')
ASIO = Peer('asio', 'asio')
SD_EVENT = Peer('sd-event', 'sd_event')
GLIB = Peer('glib', 'glib')
ZEROMQ = Peer('ZeroMQ', 'zeromq')
FLOOR_DRAIN = Peer('floor, one signal for many', 'floor', ('drain=1',))

LOOPS = (OURS, FLOOR, LIBEV, LIBEVENT, LIBUV, ASIO, SD_EVENT, GLIB)
RIVALS = tuple(peer for peer in LOOPS if peer not in (OURS, FLOOR))


def seconds(quick, full):
    return {'quick': {'seconds': quick}, 'full': {'seconds': full}}


def ring_group():
    def cell(size):
        best = Target('ns_per_event', (LIBEV, LIBEVENT, LIBUV), 1.08)
        return Cell(f'{size:,} pipes', 'ring', (f'size={size}', 'tokens=100'), LOOPS,
                    (best,) if size <= 1000 else (), **seconds(0.06, 0.5),
                    slow=(GLIB,) if size > 1000 else ())
    return Group('ring', 'Dispatch round a ring of pipes',
                 (Metric('ns_per_event', 'ns per event'),),
                 tuple(cell(size) for size in (100, 1000, 9900)), is_cost=True)


def ordered_group():
    peers = (OURS, FLOOR, LIBEVENT_ONE, SD_EVENT)
    limits = {(100, 1): 1.05, (100, 10): 0.80, (100, 100): 0.55,
              (1000, 1): 1.05, (1000, 10): 0.80, (1000, 100): 0.20}

    def cell(size, tokens):
        targets = (Target('ns_per_event', (LIBEVENT_ONE,), limits[size, tokens]),
                   Target('ns_per_event', (SD_EVENT,), 1.0))
        title = f'{size:,} pipes, {tokens} ' + ('token' if tokens == 1 else 'tokens')
        return Cell(title, 'ring', (f'size={size}', f'tokens={tokens}', 'one=1'), peers, targets,
                    **seconds(0.07, 0.5))
    return Group('ordered', 'The same ring, one callback per poll',
                 (Metric('ns_per_event', 'ns per event'),),
                 tuple(cell(size, tokens) for size in (100, 1000) for tokens in (1, 10, 100)),
                 is_cost=True)


def urgent_group():
    peers = (OURS, FLOOR, LIBEV, LIBEVENT, LIBEVENT_ONE, LIBUV, ASIO, SD_EVENT, GLIB)

    def cell(bulk, limit):
        targets = (Target('p99_us', peers[2:], limit), Target('bulk_per_s', (LIBUV, ASIO), 0.9))
        return Cell(f'{bulk:,} bulk descriptors', 'urgent', (f'bulk={bulk}',), peers, targets,
                    **seconds(0.35, 2.5))
    return Group('urgent', 'One urgent descriptor among busy ones',
                 (Metric('p50_us', 'p50, us', 1), Metric('p99_us', 'p99, us', 1),
                  Metric('max_us', 'longest, us', 1),
                  Metric('bulk_per_s', 'bulk callbacks per s', 0, True)),
                 (cell(200, 0.50), cell(1000, 0.15)), 'p99_us')


def wake_group():
    return Group('wake', 'Wake-ups from another thread',
                 (Metric('ns_per_wake', 'ns per wake-up'),
                  Metric('ns_per_send', 'ns per send'), Metric('runs_per_wake', 'runs', 3)),
                 (Cell('ping-pong of two threads', 'ping_pong', (), LOOPS,
                       (Target('ns_per_wake', RIVALS, 1.05),), **seconds(0.15, 1)),
                  Cell('flood of one thread', 'flood', (), LOOPS,
                       (Target('ns_per_wake', (FLOOR,), 1.25),),
                       {'count': 200000}, {'count': 1000000})), is_cost=True)


def timer_group():
    def cell(beside):
        return Cell(f'one more beside {beside:,}', 'timer_churn', (f'beside={beside}',), LOOPS,
                    (Target('call_ns', (FLOOR,), 1.20),), **seconds(0.06, 0.3))
    cells = tuple(cell(beside) for beside in (10, 1000, 10000))
    return Group('timer', 'Create, start, stop and destroy a timer',
                 (Metric('call_ns', 'ns in the calls'), Metric('cpu_ns', 'processor ns')),
                 cells, '', ('call_ns', cells[0], cells[-1], 1.10), is_cost=True)


def periodic_group():
    return Group('periodic', '1,000 timers of 10 ms',
                 (Metric('p50_us', 'late p50, us'), Metric('p99_us', 'late p99, us'),
                  Metric('runs_per_due', 'runs per due run', 3),
                  Metric('cpu_us_per_run', 'processor us per run', 2)),
                 (Cell('1,000 timers of 10 ms', 'timer_periodic', (), LOOPS, (),
                       **seconds(0.3, 3)),), 'p99_us')


def message_group():
    peers = (OURS, FLOOR, FLOOR_DRAIN) + RIVALS + (ZEROMQ,)

    def cell(size, producers):
        who = 'one producer' if producers == 1 else f'{producers} producers'
        return Cell(f'{size:,} bytes, {who}', 'message_rate',
                    (f'size={size}', f'producers={producers}'), peers,
                    (Target('ns_per_message', (FLOOR,), 1.30),), **seconds(0.04, 0.4))
    return Group('message', 'Messages, as many as get through',
                 (Metric('ns_per_message', 'ns per message'),
                  Metric('cpu_ns', 'processor ns per message')),
                 tuple(cell(size, producers) for size in (64, 1024) for producers in (1, 3)),
                 is_cost=True)


def message_latency_group():
    peers = (OURS, FLOOR, FLOOR_DRAIN) + RIVALS + (ZEROMQ,)

    def cell(size):
        return Cell(f'{size:,} bytes', 'message_latency', (f'size={size}',), peers,
                    (Target('p50_us', (FLOOR,), 1.30),), **seconds(0.12, 1))
    return Group('message_latency', 'Messages, 20,000 per second',
                 (Metric('p50_us', 'p50, us', 1), Metric('p99_us', 'p99, us', 1)),
                 (cell(64), cell(1024)))


def watch_group():
    rivals = (LIBEVENT, LIBUV, ASIO, SD_EVENT, GLIB)

    def cell(beside):
        targets = (Target('ns_per_watch', (FLOOR,), 1.25), Target('ns_per_watch', rivals, 1.0))
        return Cell(f'beside {beside:,}', 'watch_churn', (f'beside={beside}',), LOOPS, targets,
                    **seconds(0.04, 0.3), slow=(GLIB,) if beside > 1000 else ())
    cells = tuple(cell(beside) for beside in (10, 1000, 10000, 19000))
    return Group('watch', 'Add and delete a descriptor',
                 (Metric('ns_per_watch', 'ns per add and delete'),),
                 cells, '', ('ns_per_watch', cells[0], cells[-1], 1.10), is_cost=True)


GROUPS = (ring_group(), ordered_group(), urgent_group(), wake_group(), timer_group(),
          periodic_group(), message_group(), message_latency_group(), watch_group())
