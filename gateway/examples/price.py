#!/usr/bin/env python3
"""Prices an article: the COMMAREA has its number, and gets its price behind it."""
import json
import sys

PRICES = {"100105": "1.20", "100106": "3.95"}

for line in sys.stdin:  # one call to a line, until there are no more
    call = json.loads(line)
    article = call["commarea"]["text"].strip()
    if article in PRICES:
        answer = {"commarea": f"{article} {PRICES[article]:>10}"}
    else:
        answer = {"abend": "NOAR"}
    print(json.dumps(answer), flush=True)
