"""The tables of cases in data/*.txt: a row a line, fields between bars ("\\|" is a plain bar); and what their
outcomes mean."""
import os

HERE = os.path.dirname(os.path.abspath(__file__))


def table(path):
    """The rows of a table below tests/ as stripped fields."""
    with open(os.path.join(HERE, path)) as rows:
        for row in rows:
            if row.strip() and row[0] != "#":
                yield [field.strip().replace("\0", "|") for field in row.replace("\\|", "\0").split("|")]


def outcome(text):
    """"kept 450" as ("kept", 450); without a number any will do (None)."""
    word, *code = text.split()
    return word, int(code[0]) if code else None


REASONS = {int(code): text for code, text in table("faults/data/reasons.txt")}


def reason(code):
    """What a return mail says about a recipient that failed with this code."""
    return REASONS.get(code, f"Unknown SMTP code {code}")


def route_agrees(route, ends, reached, there):
    """Whether a route as retryq tells it fits what a run did: the server it reached, of those that are
    there, is the first of the route; mail that nobody took is kept or returned as foretold."""
    tried = [server["address"] for step in route["steps"] for server in step["servers"] if "left_out" not in server]
    foretold = "returned" if "returned" in route["failing"] else "kept"
    return [address for address in tried if address in there][:1] == reached and ends[0] in ("delivered", foretold)
