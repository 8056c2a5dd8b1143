"""Turns the samples of a run into Markdown tables and charts."""

import re
import statistics
from pathlib import Path

import chart
from plan import OURS


def median(values):
    return statistics.median(values)


class Results:
    """The samples by cell and peer: one record per repetition, in the order of the repetitions."""

    def __init__(self, samples):
        self.samples = {}
        for sample in samples:
            key = (sample['group'], sample['cell'], sample['label'])
            self.samples.setdefault(key, []).append(sample)

    def values(self, group, cell, peer, metric):
        rows = self.samples.get((group.key, cell.title, peer.label), [])
        return [row[metric] for row in rows if metric in row]

    def value(self, group, cell, peer, metric):
        values = self.values(group, cell, peer, metric)
        return median(values) if values else None

    def ratio(self, group, cell, peer, metric, base):
        """The median of the ratios within each repetition: both saw the same machine."""
        pairs = zip(self.values(group, cell, peer, metric),
                    self.values(group, cell, base, metric))
        ratios = [above / below for above, below in pairs]
        return median(ratios) if ratios else None

    def peers(self, group, cell):
        """The peers that took part; a quick run leaves some out."""
        return [peer for peer in cell.peers if (group.key, cell.title, peer.label) in self.samples]

    def best(self, group, cell, peers, metric):
        pick = max if group.metric(metric).more_is_better else min
        present = [peer for peer in self.peers(group, cell) if peer in peers]
        return pick(present, key=lambda peer: self.value(group, cell, peer, metric))


def peers_of(group):
    seen = []
    for cell in group.cells:
        seen += [peer for peer in cell.peers if peer not in seen]
    return seen


def table(head, rows):
    line = ['| ' + ' | '.join(head) + ' |', '|---' + '|---:' * (len(head) - 1) + '|']
    return '\n'.join(line + ['| ' + ' | '.join(row) + ' |' for row in rows])


def number(value, digits):
    if value is None:
        return ''
    return f'{value:,.{digits}f}'


def cell_table(results, group, cell):
    metrics = [metric for metric in group.metrics
               if results.value(group, cell, OURS, metric.key) is not None]
    main = group.main_metric().key
    rows = []
    for peer in results.peers(group, cell):
        values = [number(results.value(group, cell, peer, metric.key), metric.digits)
                  for metric in metrics]
        rows.append([peer.label] + values +
                    [f'{results.ratio(group, cell, peer, main, OURS):.2f}'])
    return table([cell.title] + [metric.title for metric in metrics] + ['to xelsch'], rows)


def size_table(results, group):
    """One row per peer and one column per cell, for a group with a single metric."""
    metric = group.main_metric()
    rows = []
    for peer in peers_of(group):
        row = [peer.label]
        for cell in group.cells:
            value = results.value(group, cell, peer, metric.key)
            ratio = results.ratio(group, cell, peer, metric.key, OURS)
            row.append('' if value is None else f'{number(value, metric.digits)} ({ratio:.2f})')
        rows.append(row)
    return table([metric.title] + [cell.title for cell in group.cells], rows)


def ahead_of_us(results, group):
    """Which libraries did better in the main metric of the group."""
    metric = group.main_metric()
    lines = []
    for cell in group.cells:
        found = []
        for peer in results.peers(group, cell):
            if peer.program in ('xelsch', 'floor'):
                continue
            ratio = results.ratio(group, cell, peer, metric.key, OURS)
            if (ratio > 1) if metric.more_is_better else (ratio < 1):
                found.append(f'{peer.label} ({ratio:.2f})')
        if found:
            lines.append(f'- {cell.title}: ' + ', '.join(found))
    if not lines:
        return f'In {metric.title}, no other library was ahead of xelsch in this run.'
    return f'Ahead of xelsch in this run ({metric.title}, as a ratio to xelsch):\n\n' + \
        '\n'.join(lines)


def group_text(results, group):
    if len(group.metrics) == 1:
        parts = [size_table(results, group)]
    else:
        parts = [cell_table(results, group, cell) for cell in group.cells]
    parts.append(f'![{group.title}](performance/{group.key}.svg)')
    parts.append(ahead_of_us(results, group))
    return '\n\n'.join(parts)


def group_chart(results, group):
    metric = group.main_metric()
    rows = [(cell.title, {peer.label: results.ratio(group, cell, peer, metric.key, OURS)
                          for peer in results.peers(group, cell)}) for cell in group.cells]
    return chart.ratio_chart(f'{metric.title}, as a ratio to xelsch', rows,
                             [peer.label for peer in peers_of(group)])


def target_rows(results, groups):
    for group in groups:
        for cell in group.cells:
            for target in cell.targets:
                base = results.best(group, cell, target.peers, target.metric)
                ratio = results.ratio(group, cell, OURS, target.metric, base)
                metric = group.metric(target.metric)
                more = metric.more_is_better
                met = ratio >= target.limit if more else ratio <= target.limit
                word = 'at least' if more else 'at most'
                yield [f'{group.title}: {cell.title}', metric.title, base.label,
                       f'{ratio:.2f}', f'{word} {target.limit:.2f}', 'met' if met else '**missed**']
        if group.flat:
            yield flat_row(results, group)


def flat_row(results, group):
    key, small, large, limit = group.flat
    ratio = results.value(group, large, OURS, key) / results.value(group, small, OURS, key)
    return [f'{group.title}: {large.title}', group.metric(key).title, f'xelsch, {small.title}',
            f'{ratio:.2f}', f'at most {limit:.2f}', 'met' if ratio <= limit else '**missed**']


def peer_table(versions):
    return table(['peer', 'version'], [[label, version] for label, version in versions.items()])


def machine_table(machine):
    return table(['machine', ''], [[key, str(value)] for key, value in machine.items()])


def write(run, groups, folder, template):
    """Writes performance.md and its charts into folder; run is what the JSON file holds."""
    results = Results(run['samples'])
    texts = {
        'machine': machine_table(run['machine']),
        'peers': peer_table(run['versions']),
        'mode': run['mode'],
        'repetitions': str(run['repetitions']),
        'targets': table(['measurement', 'figure', 'beside', 'ratio', 'target', ''],
                         list(target_rows(results, groups))),
    }
    charts = Path(folder) / 'performance'
    charts.mkdir(parents=True, exist_ok=True)
    for group in groups:
        texts[group.key] = group_text(results, group)
        (charts / f'{group.key}.svg').write_text(group_chart(results, group))
    page = re.sub(r'\{\{(\w+)\}\}', lambda match: texts.get(match[1], 'Not part of this run.'),
                  Path(template).read_text())
    (Path(folder) / 'performance.md').write_text(page)
    return results


def summary(results, groups):
    rows = list(target_rows(results, groups))
    if not rows:
        return 'no targets in this part'

    widths = [max(len(row[column]) for row in rows) for column in range(6)]
    return '\n'.join('  '.join(text.ljust(width) for text, width in zip(row, widths)).rstrip()
                     for row in rows)
