#!/usr/bin/env python3
"""Asks a gateway for everything that its description of itself names, and judges the
answers by that description and by what tqdiscoctl prints. Usage: check_api.py URL TQDISCOCTL.
The master has two discoveries by "host", of web1 and web2, and one by "a/b ä%2F".

check_api.py URL --refused STATUS [HOST]: everything for which the description has it is asked for,
of that host, and has to be answered with that status, but for events with 503."""

import gzip
import http.client
import json
import pathlib
import subprocess
import sys
from urllib.parse import quote, urlsplit

import jsonschema

BASE = urlsplit(sys.argv[1])
ASKED = set()
FAILURES = []
COUNT = 0


def fetch(target, method="GET", body=None, **headers):
    connection = http.client.HTTPConnection(BASE.hostname, BASE.port, timeout=60)
    connection.request(method, target, body,
                       {name.replace("_", "-"): value for name, value in headers.items()})
    answer = connection.getresponse()
    text = answer.read()
    connection.close()
    return answer, text


def fail(target, text):
    FAILURES.append(f"{target}: {text}")


DOCUMENT = json.loads((pathlib.Path(__file__).parents[3] / "web/openapi.json").read_text())


def judge(target, schema, value):
    """The schemas refer to one another within the document."""
    whole = {"$schema": "https://json-schema.org/draft/2020-12/schema",
             "components": DOCUMENT["components"], "allOf": [schema]}
    validator = jsonschema.Draft202012Validator(whole)
    for error in validator.iter_errors(value):
        fail(target, f"{list(error.absolute_path)}: {error.message}"[:500])


def ask(path, target, status=200, method="GET", accept=None, body=None, host=None):
    """path: as the description has it; the answer's value, or its text."""
    global COUNT
    COUNT += 1
    headers = {name: value for name, value in (("Accept", accept), ("Host", host)) if value}
    answer, text = fetch(target, method, body, **headers)
    if answer.status != status:
        fail(target, f"status {answer.status} instead of {status}: {text[:300]}")
    responses = DOCUMENT["paths"][path]["get"]["responses"]
    if str(answer.status) not in responses:
        fail(target, f"status {answer.status} is not described")
        return None
    kind = answer.headers.get_content_type()
    content = responses[str(answer.status)]["content"]
    if kind not in content:
        fail(target, f"{kind} is not described")
        return None
    if accept and status == 200 and kind != accept:
        fail(target, f"{kind} instead of {accept}")
    ASKED.add((path, str(answer.status)))
    if kind not in ("application/json", "application/problem+json"):
        return text.decode()
    value = json.loads(text)
    judge(target, content[kind]["schema"], value)
    return value


def printed(*words):
    NOTHING = 3
    result = subprocess.run([sys.argv[2], *words, "--json"], capture_output=True)
    if result.returncode not in (0, NOTHING):
        sys.exit(f"tqdiscoctl {words}: {result.stderr.decode()}")
    return json.loads(result.stdout)


def without(value, *names):
    """The value without these members, at any depth."""
    if isinstance(value, dict):
        return {k: without(v, *names) for k, v in value.items() if k not in names}
    return [without(v, *names) for v in value] if isinstance(value, list) else value


def same(target, ours, theirs):
    # When a record expires is told by the master to the second, and rounded anew each time.
    ours, theirs = (without(each, "master", "silent", "expiresTime", "firstExpiresTime")
                    for each in (ours, theirs))
    if ours != theirs:
        fail(target, f"differs from what tqdiscoctl prints:\n{ours}\n{theirs}")


def example(path):
    return path.replace("{subject}", "web2").replace("{authority}", "host")


def conclude():
    print("\n".join(FAILURES) or f"{COUNT} answers were as they should be")
    sys.exit(1 if FAILURES else 0)


def check_refusals(status, host=None):
    for path, described in DOCUMENT["paths"].items():
        is_exempt = status == 503 and path.endswith("/events")
        if str(status) in described["get"]["responses"] and not is_exempt:
            problem = ask(path, example(path), status, host=host)
            if problem and problem["status"] != status:
                fail(path, f"tells of {problem['status']}")
    if not COUNT:
        fail(str(status), "no path is described with it")
    conclude()


if sys.argv[2] == "--refused":
    check_refusals(int(sys.argv[3]), *sys.argv[4:])

V1 = "/api/v1/"
ONE = V1 + "discoveries/{subject}/{authority}"
ODD = quote("a/b ä%2F", safe="")

# That the judge can say no.
before = len(FAILURES)
judge("", {"$ref": "#/components/schemas/Status"}, {"service": "tqdiscoweb"})
judge("", {"$ref": "#/components/schemas/Problem"},
      {"type": "about:blank", "title": "", "status": 400, "detail": "", "more": 1})
if len(FAILURES) < before + 2:
    sys.exit("the validator finds nothing wrong with what is wrong")
del FAILURES[before:]

ask(V1 + "status", V1 + "status")
ask(V1 + "status", V1 + "status?x=1", 400)
same("hosts", ask(V1 + "hosts", V1 + "hosts")["hosts"], printed("hosts"))
same("hosts", ask(V1 + "hosts", V1 + "hosts?subject=*2")["hosts"],
     printed("hosts", "--subject", "*2"))
ask(V1 + "hosts", V1 + "hosts?limit=1", 400)
ask(V1 + "hosts", V1 + "hosts?subject=%", 400)
host = ask(V1 + "hosts/{subject}", V1 + "hosts/web2")
same("hosts/web2", host["records"], printed("query", "--subject", "web2"))
ask(V1 + "hosts/{subject}", V1 + "hosts/web9", 404)
ask(V1 + "hosts/{subject}", V1 + "hosts/web2?x", 400)
same("discoveries", ask(V1 + "discoveries", V1 + "discoveries")["discoveries"], printed("query"))
same("discoveries", ask(V1 + "discoveries", V1 + "discoveries?authority=h*&type=external")
     ["discoveries"], printed("query", "--authority", "h*", "--type", "external"))
for mistake in ("limit=0", "limit=x", "limit=10001", "cursor=x", "cursor=other/a/b/2/s",
                "type=nothing", "subject=a&subject=b"):
    problem = ask(V1 + "discoveries", V1 + "discoveries?" + mistake, 400)
    if problem.get("parameter") != mistake.split("=")[0]:
        fail(mistake, "does not name the parameter")
for name in ("host", "a/b ä%2F"):
    target = V1 + "discoveries/web2/" + quote(name, safe="")
    same(target, ask(ONE, target), printed("show", "web2", name))
    payload = ask(ONE, target, accept="application/xml")
    raw = subprocess.run([sys.argv[2], "show", "web2", name, "--raw"], check=True,
                         capture_output=True).stdout.decode()
    if payload != raw:
        fail(target, "the payload is another")
ask(ONE, V1 + "discoveries/web2/host?type=client", 404)
ask(ONE, V1 + "discoveries/web2/host?master=other", 404)
ask(ONE, V1 + "discoveries/web2/host?type=x", 400)
ask(ONE, V1 + "discoveries/web2/nothing", 404)
ask(ONE, V1 + "discoveries/web2/host", 406, accept="image/png")
same("items", ask(V1 + "items", V1 + "items"), printed("items"))
QUERY = "Size > 6 and Size < 10K"
same("items", ask(V1 + "items", V1 + "items?where=" + quote(QUERY)),
     printed("items", "--where", QUERY))
for kind in ("application/jsonl", "application/x-ndjson"):
    lines = ask(V1 + "items", V1 + "items?authority=host", accept=kind)
    values = [json.loads(line) for line in lines.splitlines()]
    for value in values:
        judge(kind, {"$ref": "#/components/schemas/ItemLine"}, value)
    same(kind, values, [json.loads(line) for line in subprocess.run(
        [sys.argv[2], "items", "--authority", "host", "--json-lines"], check=True,
        capture_output=True).stdout.splitlines()])
ask(V1 + "items", V1 + "items", 406, accept="text/html")
problem = ask(V1 + "items", V1 + "items?where=" + quote("Size >\n    and"), 400)
PLACE = problem.get("position", {"line": 0, "column": 0})
if (PLACE["line"] == PLACE["column"] or problem.get("parameter") != "where" or
        f"line {PLACE['line']}, column {PLACE['column']}:" not in problem["detail"]):
    fail("items", f"the mistake has another place, or none: {problem}")
same("filters", ask(V1 + "filters/{authority}", V1 + "filters/size"),
     printed("filters", "*", "size"))
ask(V1 + "filters/{authority}", V1 + "filters/size?x=1", 400)
ask(V1 + "filters/{authority}", V1 + "filters/size?sample=3")
ask(V1 + "filters/{authority}", V1 + "filters/size?sample=0", 400)
ask(V1 + "openapi.json", V1 + "openapi.json")
metrics = ask("/metrics", "/metrics")
if "tqdisco_up 1" not in metrics:
    fail("/metrics", metrics)
for path in DOCUMENT["paths"]:
    target = example(path)
    ask(path, target, 405, method="POST")
    ask(path, target, 413, body="x")
    ask(path, target + "?%zz", 400)
    head, nothing = fetch(target, "HEAD")
    if path != V1 + "events" and (head.status != 200 or nothing):
        fail(target, f"HEAD: {head.status}")
for target in ("/api", "/api/v1", "/api/v1/", "/api/v2/status", "/api/v1/hosts/", "/api/v1/status/x",
               "/api/v1/discoveries/a", "/api/v1/discoveries/a/b/c", "/api/v1/filters/",
               "/metrics/x", "/nothing"):
    answer, _ = fetch(target)
    if answer.status != 404:
        fail(target, f"status {answer.status}")

answer, plain = fetch(V1 + "openapi.json")
zipped, text = fetch(V1 + "openapi.json", Accept_Encoding="gzip")
if zipped.headers["Content-Encoding"] != "gzip" or gzip.decompress(text) != plain:
    fail("gzip", "is not the same")
for kind in ("application/json", "application/jsonl"):
    _, plain = fetch(V1 + "items", Accept=kind)
    zipped, text = fetch(V1 + "items", Accept=kind, Accept_Encoding="gzip")
    if zipped.headers["Content-Encoding"] != "gzip":
        fail("gzip", f"{kind} is not zipped")
    same("gzip", *([json.loads(line) for line in each.splitlines()] if kind.endswith("jsonl")
                   else json.loads(each) for each in (gzip.decompress(text), plain)))
answer, text = fetch(V1 + "openapi.json", If_None_Match=answer.headers["ETag"])
if answer.status != 304 or text:
    fail("ETag", f"status {answer.status}")

events = http.client.HTTPConnection(BASE.hostname, BASE.port, timeout=60)
events.request("GET", V1 + "events")
stream = events.getresponse()
if stream.headers.get_content_type() != "text/event-stream":
    fail("events", stream.headers.get_content_type())
event, data = stream.readline().decode(), stream.readline().decode()
if event != "event: state\n" or not data.startswith("data: "):
    fail("events", event + data)
else:
    judge("events", {"$ref": "#/components/schemas/Master"}, json.loads(data[6:]))
events.close()
ASKED.add((V1 + "events", "200"))

for path in DOCUMENT["paths"]:
    if (path, "200") not in ASKED:
        fail(path, "was never asked for")
_, TEXT = fetch(V1 + "openapi.json")
if json.loads(TEXT)["paths"] != DOCUMENT["paths"]:
    fail("openapi.json", "is another")
conclude()
