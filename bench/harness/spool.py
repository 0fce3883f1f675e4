"""The spools of the workloads, in the gateway's form and, for the floors, with texts in wire form."""
import os
import shutil
import time

SENDER = "<s@bench.test>"
LINE = b"The quick brown fox jumps over the lazy dog, again and again..\n"
HEADER = b"From: s@bench.test\nTo: r@bench.test\nSubject: one of many\n\n"


def text(size):
    """An ordinary message of `size` bytes."""
    lines = (size - len(HEADER)) // len(LINE)
    rest = size - len(HEADER) - lines * len(LINE)
    return HEADER + LINE * lines + (b"x" * (rest - 1) + b"\n" if rest else b"")


def dotted(size):
    """A message of lines of 60 bytes that begin with a dot."""
    return HEADER + (b"." + b"d" * 58 + b"\n") * ((size - len(HEADER)) // 60)


def wire(body):
    """The same message as it goes over the wire, final dot included."""
    stuffed = body.replace(b"\n.", b"\n..").replace(b"\n", b"\r\n")
    return (b"." if body.startswith(b".") else b"") + stuffed + b"\r\n.\r\n"


def stamp(seconds):
    t = time.gmtime(seconds)
    return f"{t.tm_year:04}/{t.tm_mon - 1:02}/{t.tm_mday:02}@{t.tm_hour:02}:{t.tm_min:02}:{t.tm_sec:02}_GMT"


def recipient_file(recipients, age=86400):
    """Tried once, `age` seconds ago."""
    when = stamp(time.time() - age)
    lines = [when, when, "1", SENDER] + [f"<{r}>\t450" for r in recipients]
    return ("\n".join(lines) + "\n").encode()


def write(path, data):
    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o664)
    view = memoryview(data)
    while view:
        view = view[os.write(fd, view):]
    os.close(fd)


def empty(directory):
    shutil.rmtree(directory, ignore_errors=True)
    os.makedirs(directory)


def seed(directory, body, recipient_lists, age=86400):
    """One message for each list of recipients, and no others."""
    empty(directory)
    fill(directory, body, recipient_lists, age)


def fill(directory, body, recipient_lists, age=86400, name="m"):
    for i, recipients in enumerate(recipient_lists):
        path = f"{directory}/{name}{i * 7919 % 1000003:06}"
        write(path, body)
        write(path + ".rmd", recipient_file(recipients, age))
