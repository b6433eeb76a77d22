#!/usr/bin/env python3
"""Tells which hosts of a fleet are silent and which file systems are full, and
with --follow what happens from then on.

    fleet.py [--gateway http://127.0.0.1:27580] [--full 90] [--follow]

Needs nothing but Python. Exits with 0 when all is well, 1 when something needs
a look, 2 when the gateway could not be asked.
"""

import argparse
import json
import os
import sys
import time
import urllib.error
import urllib.parse
import urllib.request


def request(gateway, path, accept, headers=None, **parameters):
    """Asks the gateway; the answer can be read like a file."""
    query = urllib.parse.urlencode(parameters)
    address = f"{gateway}/api/v1/{path}" + (f"?{query}" if query else "")
    asked = urllib.request.Request(address, headers={"Accept": accept, **(headers or {})})
    if token := os.environ.get("TQ_TOKEN"):
        asked.add_header("Authorization", f"Bearer {token}")
    return urllib.request.urlopen(asked, timeout=60)


def hosts(gateway):
    with request(gateway, "hosts", "application/json") as answer:
        return json.load(answer)["hosts"]


def items(gateway, authority, where):
    """The items that a query matches, one after another as they are found."""
    with request(gateway, "items", "application/jsonl", authority=authority,
                 where=where) as answer:
        for line in answer:
            yield json.loads(line)


def events(gateway):
    """What happens, for ever: pairs of the event's name and its data. After a
    connection has ended it goes on behind the last event that came."""
    last = None
    while True:
        try:
            headers = {"Last-Event-ID": last} if last else {}
            with request(gateway, "events", "text/event-stream", headers) as answer:
                name, data = None, ""
                for line in answer:
                    field, _, value = line.decode().rstrip("\n").partition(":")
                    value = value.removeprefix(" ")
                    if field == "id":
                        last = value
                    elif field == "event":
                        name = value
                    elif field == "data":
                        data += value
                    elif not field and not value and name:
                        yield name, json.loads(data)
                        name, data = None, ""
        except urllib.error.HTTPError:
            raise
        except OSError:
            pass # a moment later it may be there again
        time.sleep(2)


def shown(name):
    """A name on one line, whatever somebody has called his host."""
    return "".join(c if c.isprintable() else f"\\u{ord(c):04x}" for c in name)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--gateway", default="http://127.0.0.1:27580")
    parser.add_argument("--full", type=int, default=90, help="per cent from which one is full")
    parser.add_argument("--follow", action="store_true", help="go on with what happens")
    options = parser.parse_args()
    gateway = options.gateway.rstrip("/")

    worries = 0
    try:
        for host in hosts(gateway):
            if host["silent"]:
                print(f"silent  {shown(host['host'])}  since {host['latestTime']}")
                worries += 1
        for item in items(gateway, "filesystem", f"Use >= {options.full}%"):
            print(f"full    {shown(item['subject'])}  {shown(item['name'])}  {item['facts']['Use']}")
            worries += 1
        if options.follow:
            for name, data in events(gateway):
                subject = data.get("subject") or data.get("master") or ""
                what = data.get("authority") or data.get("state") or ""
                print(f"{name:7} {shown(subject)}  {shown(what)}", flush=True)
    except urllib.error.HTTPError as error:
        problem = json.loads(error.read() or "{}")
        print(f"fleet.py: {problem.get('detail', error)}", file=sys.stderr)
        return 2
    except OSError as error:
        print(f"fleet.py: {gateway}: {error}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        pass
    return 1 if worries else 0


if __name__ == "__main__":
    sys.exit(main())
