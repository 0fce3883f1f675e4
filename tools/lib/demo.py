#!/usr/bin/python3
"""The demonstration behind tools/demo; see there."""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

import world
from servers import SILENT, Dnsmasq, Exim, SmtpServer
from world import DNS_ADDRESS, World

HOUR, DAY = 3600, 86400
STORE, RELAY, SECOND, DEAD = "127.0.0.10", "127.0.0.11", "127.0.0.12", "127.0.0.30"
BUSY, STRICT, MUTE = "127.0.0.20", "127.0.0.21", "127.0.0.22"

PLACES = [
    (DNS_ADDRESS, "dnsmasq", "name server of the zone test"),
    (STORE, "Exim", "exchanger of alpha.test, beta.test and senders.test; stores what it accepts"),
    (RELAY, "Exim", "relay for *.partner.test, by the rule table"),
    (SECOND, "Exim", "second exchanger of twohosts.test"),
    (DEAD, "nobody", "first exchanger of twohosts.test; refuses the connection"),
    (BUSY, "scripted", "exchanger of busy.test; answers 450 to every recipient"),
    (STRICT, "scripted", "exchanger of strict.test; answers 550 to every recipient"),
    (MUTE, "scripted", "exchanger of silent.test; takes connections and never says a word"),
]
ZONE = {f"mx{address.rsplit('.')[-1]}.test": [address] for address, _, _ in PLACES[1:]}
ZONE.update({f"{name}.test": [(10, f"mx{address.rsplit('.')[-1]}.test")] for name, address in (
    ("alpha", STORE), ("beta", STORE), ("senders", STORE), ("busy", BUSY), ("strict", STRICT), ("silent", MUTE))})
ZONE["twohosts.test"] = [(10, "mx30.test"), (20, "mx12.test")]

LONG = (b"Subject: large\n\n" + b"x" * 1500000 + b"\n" + b"." * 1500000 + b"\n"
        + b"".join(b"." * (n % 3) + b"y" * (1000 + n % 60) + b"\n" for n in range(3000)))

# Leaf name; what it is for; recipients with their outcome (text before ":" is what happens to it);
# anything that differs from an ordinary due message.
MESSAGES = [
    ("shared", "two domains, one server: one connection", {"ann@alpha.test": "delivered", "bob@beta.test": "delivered", "cy@alpha.test": "delivered"}, {}),
    ("relayed", "a relay entry leads", {"dora@branch.partner.test": "delivered"}, {}),
    ("busy", "refused for now", {"emil@busy.test": "deferred 450"}, {}),
    ("refused", "refused for good", {"fay@strict.test": "returned"}, {}),
    ("backup", "first exchanger dead, second alive", {"gus@twohosts.test": "delivered"}, {}),
    ("literal", "an address instead of a domain", {"hal@[127.0.0.12]": "delivered"}, {}),
    ("recent", "tried ten minutes ago: too soon", {"ida@alpha.test": "untouched"}, {"last": -600}),
    ("overdue", "waited six days: too long", {"jon@silent.test": "returned"}, {"first": -6 * DAY, "tries": 9, "code": 1001}),
    ("bounce", "no sender to return it to", {"kay@strict.test": "dropped"}, {"sender": "<>"}),
    ("large", "6 MB with lines of 1.5 MB", {"lea@alpha.test": "delivered"}, {"text": LONG}),
    ("mixed", "each recipient fares differently",
     {"max@alpha.test": "delivered", "emil@busy.test": "deferred 450", "fay@strict.test": "returned"}, {}),
    ("mute", "the server stays silent", {"ned@silent.test": "deferred 1001"}, {}),
    ("lost", "the domain does not exist", {"oda@nowhere.test": "returned"}, {}),
]
RULES = [f"domain-relay *.partner.test {RELAY}"]
COLOUR = sys.stdout.isatty() and "NO_COLOR" not in os.environ


def heading(text):
    print(f"\n\033[1m{text}\033[0m" if COLOUR else f"\n{text}\n{'-' * len(text)}")


def mark(good):
    word = "ok" if good else "WRONG"
    return f"\033[{32 if good else 31}m{word}\033[0m" if COLOUR else word


def table(*rows):
    """Prints rows in columns; cells that are numbers stand to the right."""
    rows = [[str(cell) for cell in row] for row in rows]
    plain = [[re.sub(r"\033\[\d+m", "", cell) for cell in row] for row in rows]
    widths = [max(len(row[i]) for row in plain) for i in range(len(rows[0]))]
    for number, (row, bare) in enumerate(zip(rows, plain)):
        cells = []
        for i, cell in enumerate(row):
            space = " " * (widths[i] - len(bare[i]))
            right = all(re.fullmatch(r"[\d,]*", other[i]) for other in plain[1:])
            cells.append(space + cell if right else cell + space)
        line = "  " + "   ".join(cells).rstrip()
        print(f"\033[2m{line}\033[0m" if COLOUR and number == 0 else line)


def span(seconds):
    for unit, size in (("d", DAY), ("h", HOUR), ("min", 60)):
        if seconds >= size:
            return f"{seconds / size:.0f} {unit}"
    return f"{max(0, seconds):.0f} s"


def show_spool(files):
    now, rows = time.time(), [("message", "bytes", "first try", "last try", "tries", "sender", "recipient", "last result")]
    for leaf in sorted(name for name in files if name + ".rmd" in files):
        rmd = world.Rmd.parse(files[leaf + ".rmd"])
        head = (leaf, f"{len(files[leaf]):,}", span(now - rmd.first) + " ago", span(now - rmd.last) + " ago", rmd.tries, rmd.sender)
        for rcpt, code in rmd.recipients:
            rows.append((*head, rcpt, "none yet" if code == -1 else code))
            head = ("",) * len(head)
    table(*rows)


class Evidence:
    """What can be seen after the run, without asking the program."""

    def __init__(self, before, after, stored, log):
        self.before, self.after, self.log = before, after, log
        self.returns = [mail for mail in stored if mail.text.startswith(b"From: Z880_SMTP_Mail_Service\n")]
        self.mails = {}
        for mail in stored:
            if mail not in self.returns:
                self.mails.setdefault(re.search(rb"^Subject: (\S+)", mail.text, re.M)[1].decode(), []).append(mail)

    def outcome(self, leaf, rcpt):
        """In the words of MESSAGES; more than one when they contradict each other."""
        found = [f"delivered by {self.host(leaf, rcpt)}" for mail in self.mails.get(leaf, []) if rcpt in mail.recipients]
        if leaf + ".rmd" in self.after:
            kept = dict(world.Rmd.parse(self.after[leaf + ".rmd"]).recipients)
            same = self.after[leaf + ".rmd"] == self.before[leaf + ".rmd"]
            found += ["untouched" if same else f"deferred {kept[f'<{rcpt}>']}"] if f"<{rcpt}>" in kept else []
        for mail in self.returns:
            text = mail.text.decode("latin-1")
            reason = re.search(rf"^<{re.escape(rcpt)}>: (.*)$", text.partition("-------- Returned Mail")[0], re.M)
            if reason and f"\nSubject: {leaf}\n" in text:
                short = re.search(r"\[(SMTP Error Code \d+)\]", reason[1])
                found.append(f"returned ({short[1] if short else reason[1].rstrip('.')})")
        dropped = [line for line in self.log if " dropped " in line.text and f"<{rcpt}>" in line.text]
        return " and ".join(found) or ("dropped, and logged" if dropped else "LOST")

    def host(self, leaf, rcpt):
        line = next((line.text for line in self.log if f" delivered msg={leaf} " in line.text and f"<{rcpt}>" in line.text), "")
        return (re.search(r"relay=(\S+)", line) or ["", "?"])[1]


def show_outcomes(evidence):
    rows, wrong = [("message", "the case", "recipient", "what became of it", "")], 0
    for leaf, case, rcpts, _ in MESSAGES:
        for rcpt, expected in rcpts.items():
            got = evidence.outcome(leaf, rcpt)
            good = got.startswith(expected) and " and " not in got.replace("dropped, and", "")
            wrong += not good
            rows.append((leaf, case, rcpt, got, mark(good) if good else f"{mark(good)}, expected: {expected}"))
            case = ""
    table(*rows)
    return wrong


def show_returns(evidence):
    rows = [("to", "about", "failed recipient", "reason")]
    for mail in evidence.returns:
        head, _, quoted = mail.text.decode("latin-1").partition("-------- Returned Mail --------")
        for rcpt, reason in re.findall(r"^(<.*>): (.*)$", head.partition("Failed Recipients")[2], re.M):
            rows.append((", ".join(mail.recipients), re.search(r"^Subject: (.*)$", quoted, re.M)[1], rcpt, reason))
    table(*rows)
    if evidence.returns:
        print("\n  One of them in full:")
        for line in evidence.returns[0].text.decode("latin-1").split("\n"):
            print("  | " + line)
    expected = sum("returned" in rcpts.values() for _, _, rcpts, _ in MESSAGES)
    good = len(evidence.returns) == expected and all(mail.sender == "<>" for mail in evidence.returns)
    print(f"\n  {len(evidence.returns)} return mails with the null sender, {expected} expected: {mark(good)}")
    return not good


def show_comparison(evidence):
    """The gateway ends each body with one empty line; all else must be as it was queued."""
    rows, wrong = [("message", "queued bytes", "stored bytes", "copies", "")], 0
    for leaf, _, rcpts, _ in MESSAGES:
        if "delivered" in rcpts.values():
            queued, copies = evidence.before[leaf], evidence.mails.get(leaf, [])
            good = len(copies) == 1 and copies[0].text == queued + b"\n"
            wrong += not good
            rows.append((leaf, f"{len(queued):,}", ", ".join(f"{len(mail.text):,}" for mail in copies), len(copies), mark(good)))
    table(*rows)
    return wrong


def show_log(log):
    levels = ["emerg", "alert", "crit", "error", "warning", "notice", "info", "debug"]
    for line in log:
        print(f"  {levels[line.priority % 8]:7} {line.text}")


def show_administrators_view(house):
    """What the gateway's administrator sees of the same spool."""
    env = {"TAVORIX": house.root, "TZ": "UTC", "COLUMNS": "120"}
    status = 0
    for command in ("list", "summary"):
        done = subprocess.run([world.RETRYQ, command], env=env, stdout=subprocess.PIPE, text=True, check=False)
        print(f"  $ retryq {command}")
        print("".join(f"  {line}\n" for line in done.stdout.splitlines()))
        status |= done.returncode
    return status != 0


def show_story(log, rcpt):
    print(f"  $ grep {rcpt} /var/log/mail.log")
    show_log([line for line in log if rcpt in line.text])


def queue_everything(house):
    for leaf, _, rcpts, special in MESSAGES:
        text = f"From: <me@senders.test>\nSubject: {leaf}\n\nThis is the message \"{leaf}\".\n.\n..\nfrom here on\n".encode()
        special = {"text": text, "sender": "<me@senders.test>", "code": -1, **special}
        code = special.pop("code")
        house.queue(leaf, [(f"<{rcpt}>", code) for rcpt in rcpts], **special)


def keep(house, exim):
    place = tempfile.mkdtemp(prefix="gateway-demo-")
    os.chmod(place, 0o755)
    shutil.copytree(house.root, place, dirs_exist_ok=True)
    shutil.copytree(os.path.join(exim.root, "store"), os.path.join(place, "stored-mail"))
    print(f"\nKept in {place}: deferred/ (the spool), stored-mail/, syslog, usr/local/etc/rulbex-table")


SHELL = """
PS1='[gateway demo] \\w\\$ '
export TAVORIX={root} PATH={bin}:$PATH TZ=UTC
cd {spool}
# queue RECIPIENT...: puts a message that is due into the spool.
queue() {{
    local leaf=by-hand-$RANDOM when month
    month=$(printf %02d $((10#$(date -u +%m) - 1)))
    when=$(date -u -d '2 hours ago' +%Y/$month/%d@%H:%M:%S_GMT)
    printf 'Subject: %s\\n\\nqueued by hand\\n' "$leaf" >"$leaf"
    {{ printf '%s\\n%s\\n1\\n<me@senders.test>\\n' "$when" "$when"; printf '<%s>\\t-1\\n' "$@"; }} >"$leaf.rmd"
    echo "$leaf"
}}
log() {{ tail -n "${{1:-20}}" {root}/syslog; }}
stored() {{ ls -l {store}; }}
"""


def shell(house, exim):
    rc = os.path.join(house.root, "shellrc")
    with open(rc, "w") as out:
        out.write(SHELL.format(root=house.root, bin=os.path.dirname(house.binary), spool=house.spool_dir,
                               store=os.path.join(exim.root, "store")))
    print("\nA shell inside, in the spool. Try:  queue you@alpha.test;  retryer -now;  log;  stored;  exit")
    subprocess.run(["bash", "--rcfile", rc, "-i"], check=False)


def main():
    scratch = world.enter()
    house = World(scratch)
    World._syslog.copy_to(os.path.join(house.root, "syslog"))
    house.table(*RULES, smtp_connect_timeout=5)
    dns = Dnsmasq(scratch, ZONE)
    exim = Exim(scratch, STORE, RELAY, SECOND)
    SmtpServer(BUSY, {"rcpt": "450 mailbox busy, come back later"})
    SmtpServer(STRICT, {"rcpt": "550 no such user here"})
    SmtpServer(MUTE, {"banner": (SILENT,)})
    queue_everything(house)
    before = house.spool()

    heading("The servers")
    table(("address", "server", "what it is"), *PLACES)
    heading("The spool before the run")
    show_spool(before)
    run = house.run()
    evidence = Evidence(before, house.spool(), exim.stored(), run.log)
    heading(f"retryer ran for {run.seconds:.1f} s and ended with status {run.status}. What became of each recipient")
    wrong = (run.status != 0) + show_outcomes(evidence)
    heading("The spool after the run")
    show_spool(evidence.after)
    heading("The return mails, as the sender's server stored them")
    wrong += show_returns(evidence)
    heading("Delivered mail as stored, against what was queued, byte for byte")
    wrong += show_comparison(evidence)
    heading("The system log of the run")
    show_log(run.log)
    heading("The administrator's view of what is left, and one recipient's story")
    wrong += show_administrators_view(house)
    show_story(run.log, "emil@busy.test")
    print(f"\n{'Everything came out as expected.' if not wrong else f'{wrong} things did not come out as expected.'}")
    if "--keep" in sys.argv:
        keep(house, exim)
    if "--shell" in sys.argv:
        shell(house, exim)
    exim.stop()
    dns.stop()
    return wrong != 0


if __name__ == "__main__":
    sys.exit(main())
