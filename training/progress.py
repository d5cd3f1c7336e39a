"""One line of progress: a bar that moves on a terminal, now and then a line elsewhere."""
import sys
import time


def progress(what, done, total, begun, note=""):
    """Show `done` of `total` steps begun at time.time() `begun`; the last one ends the line."""
    left = (time.time() - begun) / max(done, 1) * (total - done)
    last = done == total
    text = f"{what} {done}/{total}" + (f", {left / 60:.0f} min left" if not last else "") + (
        f", {note}" if note else "")
    if sys.stderr.isatty():
        filled = 30 * done // total
        sys.stderr.write(f"\r\033[K[{'#' * filled}{'.' * (30 - filled)}] {text}" + "\n" * last)
    elif last or done % max(1, total // 20) == 0:
        sys.stderr.write(text + "\n")
    sys.stderr.flush()
