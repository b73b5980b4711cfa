#!/usr/bin/env python3
"""Prints the benchmarks' JSON from standard input as a table: our figure, the limit, the share."""
import json
import sys

# What the limit of a row measures, by the first word of its name.
LIMITS = {
    'pcm': 'memcpy of what the device gets',
    'dsf': 'read() of the file', 'dsdiff': 'read() of the file', 'wsd': 'read() of the file',
    'wav_read': 'read() of the file',
    'filter': 'products, then sums, of that vector width',
    'names': 'readdir() of the same names',
    'peer': 'another method: compare the price only',
}


def figures(row):
    """Our figure, the limit and their unit, from a benchmark's counters."""
    if 'ours' in row:
        return row['ours'] / 1e6, row['limit'] / 1e6, 'million names/s'
    if row['name'].startswith('pcm'):
        return row['bytes_per_second'] / 1e9, row['limit'] / 1e9, 'GB/s'
    ours = row.get('x_real_time', row.get('x_realtime'))
    return ours, row.get('limit', row.get('peak')), 'x real time'


def main():
    print('| Path | Ours | Limit | Share | Unit | The limit |')
    print('|---|--:|--:|--:|---|---|')
    for row in json.load(sys.stdin)['benchmarks']:
        kind = row['name'].split('/')[0]
        if kind not in LIMITS or row.get('error_occurred'):
            continue
        ours, limit, unit = figures(row)
        name = row['name'].removesuffix('/iterations:1')
        limit_and_share = (f'{limit:.2f} | {100 * ours / limit:.0f} %' if limit else '- | -')
        print(f'| {name} | {ours:.2f} | {limit_and_share} | {unit} | {LIMITS[kind]} |')


main()
