"""A chart as plain SVG: one row per cell, one dot per peer, on a logarithmic axis of ratios."""

import math
from html import escape

COLOURS = ('#1b6ca8', '#444444', '#c0392b', '#1e8449', '#b9770e', '#7d3c98', '#138d75', '#a04000',
           '#5d6d7e', '#d81b60', '#00838f')
WIDTH, LEFT, RIGHT, TOP, ROW = 860, 210, 30, 46, 30


def ticks(low, high):
    wanted = [mantissa * 10.0 ** power
              for power in range(-4, 6) for mantissa in (1, 2, 5)]
    return [tick for tick in wanted if low <= tick <= high]


def ratio_chart(title, rows, peers):
    """rows: (label, {peer: ratio}); peers: the labels in the order of the legend."""
    ratios = [ratio for _, row in rows for ratio in row.values() if ratio > 0]
    low, high = min(ratios + [0.8]) / 1.15, max(ratios + [1.25]) * 1.15
    scale = (WIDTH - LEFT - RIGHT) / math.log(high / low)

    def x_of(ratio):
        return LEFT + scale * math.log(ratio / low)

    legend_top = TOP + ROW * len(rows) + 40
    per_line = 4
    height = legend_top + 20 * math.ceil(len(peers) / per_line) + 6
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
           f'viewBox="0 0 {WIDTH} {height}" font-family="sans-serif" font-size="12">',
           f'<rect width="{WIDTH}" height="{height}" fill="#ffffff"/>',
           f'<text x="{LEFT}" y="20" font-size="15">{escape(title)}</text>']
    bottom = TOP + ROW * len(rows)
    for tick in ticks(low, high):
        strong = ' stroke-width="2"' if tick == 1 else ''
        colour = '#1b6ca8' if tick == 1 else '#dddddd'
        out.append(f'<line x1="{x_of(tick):.1f}" x2="{x_of(tick):.1f}" y1="{TOP - 8}" '
                   f'y2="{bottom}" stroke="{colour}"{strong}/>')
        out.append(f'<text x="{x_of(tick):.1f}" y="{bottom + 16}" text-anchor="middle">'
                   f'{tick:g}</text>')
    for index, (label, row) in enumerate(rows):
        y = TOP + ROW * index + ROW / 2
        out.append(f'<text x="{LEFT - 12}" y="{y + 4:.1f}" text-anchor="end">'
                   f'{escape(label)}</text>')
        for peer, ratio in row.items():
            if ratio <= 0:  # early on average; a logarithmic axis has no place for it
                continue
            out.append(f'<circle cx="{x_of(ratio):.1f}" cy="{y:.1f}" r="5" fill-opacity="0.85" '
                       f'fill="{COLOURS[peers.index(peer) % len(COLOURS)]}"/>')
    for index, peer in enumerate(peers):
        x = LEFT - 180 + 200 * (index % per_line)
        y = legend_top + 20 * (index // per_line)
        out.append(f'<circle cx="{x}" cy="{y - 4}" r="5" '
                   f'fill="{COLOURS[index % len(COLOURS)]}"/>')
        out.append(f'<text x="{x + 10}" y="{y}">{escape(peer)}</text>')
    out.append('</svg>')
    return '\n'.join(out) + '\n'
