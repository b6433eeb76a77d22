#!/usr/bin/env python3
"""Prints which facts each item has, one line an item, from "tqdiscoctl items --json"."""
import json
import sys

for collection in json.load(sys.stdin):
    for item in sorted(collection["items"], key=lambda item: item["name"]):
        print(item["name"], *sorted(item["facts"]))
