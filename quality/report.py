"""Pictures, tables and text of the quality report, as one HTML page and as Markdown.

Takes what quality.measure returns for each detector; see metrics for what the figures mean.
"""
import html
import io
import os
import re

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np

INK = "#3a3f47"  # what the page's own text colour replaces
LOOKS = {"dnnvad 8 kHz": ("#2f7de1", "o"), "dnnvad 16 kHz": ("#d6467c", "D"),
         "Silero v5": ("#12a08a", "s"), "RNNoise": ("#dd7a12", "^"),
         "WebRTC mode 2": ("#767d87", "v"), "WebRTC mode 3": ("#a98fd8", "X")}
MODES = "#767d87"  # all modes of WebRTC
NOISE = {"clean": "clean", "20": "20 dB", "10": "10 dB", "5": "5 dB", "0": "0 dB",
         "-5": "\N{MINUS SIGN}5 dB", "quiet": "\N{MINUS SIGN}60 dB peak"}
SOUNDS = {"effects": "effects", "machines": "machines", "music": "music", "crowd": "a crowd",
          "tones": "tones", "steady": "steady noise"}
STYLE = {"text.color": INK, "axes.edgecolor": INK, "axes.labelcolor": INK, "xtick.color": INK,
         "ytick.color": INK, "grid.color": INK, "grid.alpha": 0.18, "axes.grid": True,
         "axes.spines.top": False, "axes.spines.right": False, "svg.fonttype": "none",
         "font.size": 9, "axes.titlesize": 10, "legend.fontsize": 8, "legend.frameon": False,
         "font.family": "sans-serif", "lines.linewidth": 1.6, "lines.markersize": 5}
DASH = "\N{EN DASH}"


def legend(axes):
    axes.legend(loc="lower center", bbox_to_anchor=(0.45, 1), ncol=3, columnspacing=1.4)


# Pictures: each function draws into `axes`; its docstring is the caption.

def draw_roc(axes, results, modes):
    """Speech frames found against other frames taken for speech, scenes with speech (clean to 0
    dB). Large marks: the thresholds of the table; crosses: the four modes of WebRTC."""
    trade_off(axes, results, modes, lambda alarm, hit, precision: (alarm, hit))
    axes.set(xlim=(0, 1), ylim=(0.3, 1.005), xlabel="false alarm rate", ylabel="hit rate")
    legend(axes)


def draw_precision(axes, results, modes):
    """Precision against recall of the speech frames, same scenes and marks."""
    trade_off(axes, results, modes, lambda alarm, hit, precision: (hit, precision))
    axes.set(xlim=(0.3, 1.005), ylim=(0.3, 1.005), xlabel="recall", ylabel="precision")
    legend(axes)


def trade_off(axes, results, modes, place):
    """Curves and marks of the detectors at place(alarm rate, hit rate, precision) = (x, y)."""
    def mark(rates):
        return place(rates["alarm_rate"], 1 - rates["miss_rate"], rates["precision"])

    for result in results:
        colour, marker = LOOKS[result["name"]]
        if not result["name"].startswith("WebRTC"):
            axes.plot(*place(*result["curve"]), color=colour)
        axes.plot(*mark(result["all"]), marker, color=colour, markersize=7, label=result["name"])
    axes.plot(*zip(*map(mark, modes)), "x:", color=MODES, linewidth=1, zorder=0)


def by_noise(axes, results, figure, label):
    for result in results:
        colour, marker = LOOKS[result["name"]]
        groups = [g for g in NOISE if g in result["speech"] and g != "quiet"]
        axes.plot(range(len(groups)), [result["speech"][g][figure] for g in groups],
                  marker=marker, color=colour, label=result["name"])
        axes.set_xticks(range(len(groups)), [NOISE[g] for g in groups])
    axes.set(xlabel="speech above the background", ylabel=label)


def draw_f1(axes, results, modes):
    """F1 of the frames at the thresholds of the table, by noise level."""
    by_noise(axes, results, "f1", "F1")
    axes.set_ylim(top=1)
    legend(axes)


def draw_missed(axes, results, modes):
    """Share of the speech frames that is not found, by noise level."""
    by_noise(axes, results, "miss_rate", "miss rate")
    axes.set_ylim(bottom=0)
    legend(axes)


def draw_alarms(axes, results, modes):
    """Share of the other frames of the same scenes that is taken for speech, by noise level."""
    by_noise(axes, results, "alarm_rate", "false alarm rate")
    axes.set_ylim(bottom=0)
    legend(axes)


def cumulative(axes, delays, count, behind, longest, colour, **options):
    """Share of `count` events that `delays` (frames) and the `behind` earlier ones reach."""
    times = np.arange(longest + 1)
    share = [(behind + np.sum(np.asarray(delays) <= t)) / max(1, count) for t in times]
    axes.plot(10 * times, share, color=colour, drawstyle="steps-post", **options)


def draw_onset(axes, results, modes):
    """Share of the utterances that is found so many ms after the onset. At 0: found at once, or
    the detector was in speech already. What stays below 1 is found later or missed."""
    for result in results:
        colour, overall = LOOKS[result["name"]][0], result["all"]
        cumulative(axes, overall["onset"], overall["utterances"], overall["early"], 50, colour,
                   label=result["name"])
    axes.set(xlim=(0, 500), ylim=(0, 1.005), xlabel="ms after the onset",
             ylabel="share of the utterances")
    legend(axes)


def draw_end(axes, results, modes):
    """Share of the utterances with 600 ms of silence behind that the detector has left so many ms
    after the last spoken frame (without those whose last frame it had not found)."""
    for result in results:
        colour, overall = LOOKS[result["name"]][0], result["all"]
        cumulative(axes, overall["end"], len(overall["end"]), 0, 80, colour, label=result["name"])
    axes.set(xlim=(0, 800), ylim=(0, 1.005), xlabel="ms after the end",
             ylabel="share of the utterances")
    legend(axes)


def bars(axes, results, names, value, label):
    """Horizontal bars, a group for each of `names` (key -> text), a bar for each detector."""
    thick = 0.84 / len(results)
    longest = max(value(result, key) for result in results for key in names)
    for number, result in enumerate(results):
        colour = LOOKS[result["name"]][0]
        values = [value(result, key) for key in names]
        places = np.arange(len(names)) + (number - (len(results) - 1) / 2) * thick
        axes.barh(places, values, thick * 0.9, color=colour, label=result["name"])
        for place, amount in zip(places, values):
            axes.text(amount + longest * 0.01, place, f"{amount:.0f}", va="center", fontsize=6.5)
    axes.set_yticks(range(len(names)), list(names.values()))
    axes.invert_yaxis()
    axes.set_xlabel(label)
    axes.set_xlim(0, longest * 1.1 + 0.1)
    axes.grid(False, axis="y")
    legend(axes)


def draw_begins(axes, results, modes):
    """Utterances that begin per hour of sound in which nobody speaks (a crowd: nobody in
    particular)."""
    bars(axes, results, {g: SOUNDS[g] for g in SOUNDS if g in results[0]["free"]},
         lambda result, group: result["free"][group]["begins_per_hour"],
         "utterances begun per hour")


def draw_tones(axes, results, modes):
    """Tone bursts of each kind that are taken for speech, of 100."""
    kinds = {kind: kind for kind in sorted(results[0]["tones"]) if kind != "all"}
    bars(axes, results, kinds, lambda result, kind: 100 * result["tones"][kind][0]
         / max(1, result["tones"][kind][1]), "taken for speech, of 100 bursts")


# name, title, drawn by, height in inches (all are 5.2 wide)
PICTURES = (("roc", "ROC", draw_roc, 3.9),
            ("precision", "Precision and recall", draw_precision, 3.9),
            ("f1", "F1 by noise level", draw_f1, 3.4),
            ("missed", "Speech not found", draw_missed, 3.4),
            ("alarms", "Taken for speech", draw_alarms, 3.4),
            ("onset", "Onset delay", draw_onset, 3.4), ("end", "End delay", draw_end, 3.4),
            ("begins", "False starts", draw_begins, 5.4),
            ("tones", "Tone bursts", draw_tones, 5.4))


def draw(name, function, height, results, modes):
    """(SVG text in the page's colours, PNG bytes) of a picture."""
    with plt.rc_context({**STYLE, "svg.hashsalt": name}):
        figure, axes = plt.subplots(figsize=(5.2, height), layout="constrained")
        function(axes, results, modes)
        svg, png = io.StringIO(), io.BytesIO()
        figure.savefig(svg, format="svg", transparent=True, metadata={"Date": None})
        figure.savefig(png, format="png", dpi=130, facecolor="white")
        plt.close(figure)
    text = svg.getvalue()
    text = text[text.index("<svg"):].replace(INK, "currentColor")
    # Sized by the page; ids of several pictures must not meet.
    text = re.sub(r'<svg[^>]*?viewBox="([^"]*)"[^>]*>',
                  r'<svg role="img" xmlns:xlink="http://www.w3.org/1999/xlink" viewBox="\1">',
                  text, count=1)
    text = re.sub(r'(id="|url\(#|href="#)', rf"\g<1>{name}-", text)
    return re.sub(r"<metadata>.*?</metadata>", "", text, flags=re.S), png.getvalue()


# Tables: (title, note, column names, [(row name, cells)]).

def percent(value):
    return f"{100 * value:.1f}"


def area(value):
    return f"{value:.3f}"


def frames(value):
    """A median delay: frames as ms; none measured, or most never came."""
    if value is None:
        return DASH
    return "never" if np.isinf(value) else f"{10 * value:.0f}"


def tables(results):
    names = [result["name"] for result in results]

    def row(title, cell):
        return title, [cell(result) for result in results]

    def overall(title, figure, form):
        return row(title, lambda result: form(result["all"][figure]))

    made = [("Side by side", "Scenes with speech: clean to 0 dB together.", names, [
        row("threshold", lambda result: result["decision"]),
        row("AUC of the frames", lambda result: DASH if result["name"].startswith("WebRTC")
            else area(result["all"]["auc"])),
        row("AUC, score shifted back (by ms)", lambda result: DASH
            if result["name"].startswith("WebRTC") else
            f"{result['all']['auc_shifted']:.3f} ({10 * result['all']['shift']})"),
        overall("F1 of the frames", "f1", area),
        overall("precision", "precision", area),
        overall("speech frames missed, %", "miss_rate", percent),
        overall("other frames taken for speech, %", "alarm_rate", percent),
        overall("utterances missed, of 100", "missed_utterances", percent),
        overall("utterances found early, of 100", "early_utterances", percent),
        overall("onset delay, median ms", "onset_median", frames),
        overall("end delay, median ms", "end_median", frames),
        overall("ends cut off, of 100", "cut_utterances", percent),
        overall("pauses bridged, of 100", "bridged_utterances", percent),
        row("false starts per hour", lambda result:
            f"{result['free_all']['begins_per_hour']:.0f}"),
        row("the same without crowds", lambda result:
            f"{result['free_apart']['begins_per_hour']:.0f}"),
        row("speech-free frames taken for speech, %", lambda result:
            percent(result["free_all"]["alarm_rate"])),
        row("the same without crowds", lambda result:
            percent(result["free_apart"]["alarm_rate"])),
        row("tone bursts taken for speech, of 100", lambda result:
            percent(result["tones"]["all"][0] / max(1, result["tones"]["all"][1])))])]

    free = {g: SOUNDS[g] for g in SOUNDS if g in results[0]["free"]}
    made.append((
        "False starts per hour", "Utterances that begin where nobody speaks. A detector that never "
        "rests begins one a scene, 120 per hour: read this beside the next table.", names, [
            row(free[g], lambda result, g=g: f"{result['free'][g]['begins_per_hour']:.0f}")
            for g in free]))
    made.append(("Speech-free frames taken for speech, %", "", names, [
        row(free[g], lambda result, g=g: percent(result["free"][g]["alarm_rate"]))
        for g in free]))
    made.append(("Tone bursts taken for speech, of 100", "", names, [
        row(f"{kind} ({results[0]['tones'][kind][1]})", lambda result, kind=kind: percent(
            result["tones"][kind][0] / max(1, result["tones"][kind][1])))
        for kind in sorted(results[0]["tones"])]))

    there = [g for g in NOISE if g in results[0]["speech"]]
    for title, figure, form in (
            ("AUC of the frames", "auc", area), ("F1 of the frames", "f1", area),
            ("Speech frames missed, %", "miss_rate", percent),
            ("Other frames taken for speech, %", "alarm_rate", percent),
            ("Utterances missed, of 100", "missed_utterances", percent),
            ("Onset delay, median ms", "onset_median", frames),
            ("End delay, median ms", "end_median", frames)):
        some = [r for r in results if figure != "auc" or not r["name"].startswith("WebRTC")]
        made.append((f"{title}, by noise level", "", [r["name"] for r in some], [
            (NOISE[g], [form(r["speech"][g][figure]) for r in some]) for g in there]))
    return made


def markdown_table(table):
    title, note, columns, rows = table
    lines = [f"### {title}", ""] + ([note, ""] if note else [])
    lines += ["| | " + " | ".join(columns) + " |", "|---|" + "--:|" * len(columns)]
    lines += ["| " + " | ".join([name] + cells) + " |" for name, cells in rows]
    return "\n".join(lines) + "\n"


def html_table(table):
    title, note, columns, rows = table
    head = "".join(f"<th>{html.escape(column)}</th>" for column in columns)
    body = "".join("<tr><th>" + html.escape(name) + "</th>" + "".join(
        f"<td>{html.escape(cell)}</td>" for cell in cells) + "</tr>\n" for name, cells in rows)
    return (f"<h3>{html.escape(title)}</h3>\n" + (f"<p>{html.escape(note)}</p>\n" if note else "")
            + f'<div class="wide"><table><thead><tr><td></td>{head}</tr></thead>\n'
            f"<tbody>{body}</tbody></table></div>\n")


def paragraphs(about):
    """The text of the report, [(heading, [paragraph])], without markup."""
    spoken = [NOISE[g] for g in NOISE if g in about["scenes"]]
    speech_scenes = sum(n for g, n in about["scenes"].items() if g in NOISE)
    free_scenes = sum(n for g, n in about["scenes"].items() if g in SOUNDS)
    data = [
        f"{about['hours']:.1f} hours in scenes of 30 s: {speech_scenes} with speech "
        f"({', '.join(spoken)}; {about['utterances']} utterances from clean to 0 dB) "
        f"and {free_scenes} without ("
        + ", ".join(f"{SOUNDS[g]} {about['scenes'][g]}" for g in SOUNDS if g in about["scenes"])
        + "). Every detector starts each scene afresh.",
        "The mixtures come from the same program as the training mixtures, and the marks from the "
        "same rule (level of the clean clip), but the voices are others, and noise and music come "
        "from other packages. So dnnvad is at home here, more than the others are: expect other "
        "figures, most likely worse ones for dnnvad, on recordings that were made otherwise."]
    source = about["sources"]
    if source:
        data.append(f"{source['recordings']} held-out recordings of {source['of']} ("
                    + "; ".join(f"{kind}: {', '.join(packages)}"
                                for kind, packages in source["packages"].items())
                    + f"), {source['voices']} voices. "
                    + (f"{len(source['shared'])} RECORDINGS ARE IN THE TRAINING SET TOO."
                       if source["shared"] else "No recording is in the training set too."))
    return [("Data", data), ("Detectors", [
        "dnnvad: whole sessions in 10 ms chunks with default parameters (thresholds 0.2 / 0.2), "
        "limits raised for continuous listening; a frame counts as found when the session takes "
        "it for speech. The 8 kHz model hears the same scenes at 8 kHz. The others hear 16 kHz: "
        "Silero VAD v5 (chunks of 32 ms, threshold 0.5), RNNoise's probability of voice (at 48 "
        "kHz, threshold 0.5), WebRTC's detector (10 ms, modes 0 to 3). Their frames take the "
        "score of the latest chunk that is complete when the frame has arrived, so no detector "
        "sees the future. Nothing is smoothed or held but by the detectors themselves.",
        "Nobody gets the level adjusted: the scenes with peaks at \N{MINUS SIGN}60 dB full scale "
        "come as they are. Thresholds are the usual ones, not tuned here; the curves show the "
        "others. The peers come from the npm packages @ricky0123/vad-web, @echogarden/rnnoise-wasm "
        "and @echogarden/fvad-wasm in the versions of quality/package.json."]),
        ("Figures", [
            "A frame is 10 ms. An utterance is speech of at least 200 ms, pauses up to 300 ms "
            "closed; it is missed when no frame from its start to 200 ms behind its end is found, "
            "and early when the detector is in speech already as it starts (then it is not in "
            "the onset delay). The end delay is of the last found frame behind the last spoken "
            "one, where 600 ms of silence follow; an end is cut off when the last spoken frame is "
            "not found, a pause bridged when the detector stays in speech all through it. A "
            "session's end point (status 6) comes the configured pause, 900 ms, later.",
            "A false start is an utterance that begins where nobody speaks. dnnvad: the status "
            "turns from 0, 3 or 6 to 1; the others, which have no such state machine: a found "
            "frame after more than 900 ms without. A tone burst is taken for speech when a frame "
            "from its start to 100 ms behind its end is found."])]


CSS = """:root { color-scheme: light dark; --ink: #1f2328; --dim: #59636e; --page: #ffffff;
  --line: #d8dee4; --head: #f5f7f9; }
@media (prefers-color-scheme: dark) { :root { --ink: #e3e8ee; --dim: #9aa4af; --page: #14171b;
  --line: #333a42; --head: #1c2127; } }
* { box-sizing: border-box; }
body { margin: 0 auto; max-width: 70rem; padding: 1rem; background: var(--page); color: var(--ink);
  font: 16px/1.5 system-ui, sans-serif; }
h1, h2, h3 { line-height: 1.25; } h3 { margin: 1.6rem 0 .4rem; font-size: 1.05rem; }
p { max-width: 46rem; overflow-wrap: anywhere; }
.wide { overflow-x: auto; border: 1px solid var(--line); border-radius: 6px; }
table { border-collapse: collapse; width: 100%; font-size: .85rem;
  font-variant-numeric: tabular-nums; }
th, td { padding: .3rem .6rem; text-align: right; border-bottom: 1px solid var(--line); }
tbody tr:last-child > * { border-bottom: 0; } td { white-space: nowrap; }
thead > tr > * { background: var(--head); }
tbody th, thead td { text-align: left; font-weight: normal; position: sticky; left: 0;
  background: var(--page); min-width: 7.5rem; } thead td { background: var(--head); }
.pictures { display: grid; grid-template-columns: repeat(auto-fit, minmax(min(100%, 26rem), 1fr));
  gap: 1.2rem; } figure { margin: 0; } figure svg { display: block; width: 100%; height: auto; }
figure svg text { font-family: system-ui, sans-serif !important; }
figcaption { color: var(--dim); font-size: .85rem; }
"""


def write(out, about, results, modes):
    """Write index.html, quality.md and the pictures into `out`; returns the main tables as text.

    about: scenes by group, hours, utterances, sources; modes: frame rates of WebRTC's four modes.
    """
    pictures = []
    for name, title, function, height in PICTURES:
        svg, png = draw(name, function, height, results, modes)
        with open(os.path.join(out, name + ".png"), "wb") as file:
            file.write(png)
        pictures.append((name, title, " ".join(function.__doc__.split()), svg))
    made = tables(results)
    text = paragraphs(about)

    with open(os.path.join(out, "quality.md"), "w") as file:
        file.write("# Quality beside other detectors\n\n")
        file.write(markdown_table(made[0]) + "\n")
        for name, title, caption, _ in pictures:
            file.write(f"![{title}]({name}.png)\n\n{title}: {caption}\n\n")
        file.write("\n".join(map(markdown_table, made[1:])))
        for heading, words in text:
            file.write(f"\n## {heading}\n\n" + "\n\n".join(words) + "\n")
    with open(os.path.join(out, "index.html"), "w") as file:
        file.write('<!DOCTYPE html>\n<html lang="en"><head><meta charset="utf-8">'
                   '<meta name="viewport" content="width=device-width, initial-scale=1">'
                   f"<title>dnnvad: quality</title>\n<style>{CSS}</style></head>\n<body>\n"
                   "<h1>dnnvad: quality beside other detectors</h1>\n" + html_table(made[0])
                   + '<h2>Pictures</h2>\n<div class="pictures">\n')
        for _, title, caption, svg in pictures:
            file.write(f"<figure><h3>{title}</h3>{svg}<figcaption>{html.escape(caption)}"
                       "</figcaption></figure>\n")
        file.write("</div>\n<h2>Tables</h2>\n" + "".join(map(html_table, made[1:])))
        for heading, words in text:
            file.write(f"<h2>{heading}</h2>\n"
                       + "".join(f"<p>{html.escape(word)}</p>\n" for word in words))
        file.write("</body></html>\n")
    return "\n".join(map(markdown_table, made[:2]))
