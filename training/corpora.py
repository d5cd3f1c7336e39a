"""Which Debian packages the training data comes from, and what is inside them.

Only free material that Debian distributes; models/README.md lists the licences. The rules
sort recordings by path: into speech with a voice name, noise, or music, and into a training
and a held-out split. What no rule matches is left out, because games hide speech, shouts and
grunts among their effects, and sounds that a listener could take for either class teach
nothing.
"""
import re
from dataclasses import dataclass

SPEECH_PACKAGES = [
    "asterisk-core-sounds-en-g722",
    "asterisk-core-sounds-es-g722",
    "asterisk-core-sounds-fr-g722",
    "flight-of-the-amazon-queen",
    "tuxpaint-stamps-default",
    "fillets-ng-data-cs",
    "gcin-voice",
    "hedgewars-data",
    "asterisk-prompt-fr-armelle",
    "asterisk-prompt-es-co",
]
NOISE_PACKAGES = [
    "ufoai-sound",
    "openarena-data",
    "hydrogen-drumkits-effects",
    "sonic-pi-samples",
    "wesnoth-1.16-data",
    "minetest-data",
    "trigger-rally-data",
    "colobot-common-sounds",
    "freedroidrpg-data",
    "warzone2100-data",
    "oxygen-sounds",
    "torcs-data",
    "supertuxkart-data",
    "megaglest-data",
    "0ad-data",
    "redeclipse-data",
    "flightgear-data-base",
    "widelands-data",
    "xmoto-data",
    "extremetuxracer-data",
    "endless-sky-data",
    "enigma-data",
    "bzflag-data",
    "lmms-common",
]
MUSIC_PACKAGES = [
    "asterisk-moh-opsound-g722",
    "wesnoth-1.16-music",
    "singularity-music",
    "freedroidrpg-data",
    "asc-music",
    "warzone2100-music",
]
PACKAGES = list(dict.fromkeys(SPEECH_PACKAGES + NOISE_PACKAGES + MUSIC_PACKAGES))


@dataclass
class Rule:
    """Recordings of a package whose path matches a pattern."""

    package: str  # regular expression over the whole package name
    path: str  # regular expression searched in the path inside the package
    kind: str  # "speech", "noise", "crowd", "music" or "skip"
    voice: str = ""  # speech: the voice's name, filled from the pattern's groups; noise: its class
    held_out: bool = False  # kept for measuring, never trained on


# The first matching rule decides.
RULES = [
    # Telephone prompts: one speaker for English and Spanish, another for French.
    Rule(r"asterisk-core-sounds-.*", r"/silence/|/(beep|beeperr|ascending-2tone|descending-2tone"
         r"|tt-monkeys|confbridge-join|confbridge-leave)\.g722$", "skip"),
    Rule(r"asterisk-core-sounds-e[ns]-g722", r"\.g722$", "speech", "allison"),
    Rule(r"asterisk-core-sounds-fr-g722", r"\.g722$", "speech", "june", held_out=True),
    # An adventure game with full speech: J lines are the hero's, P lines everyone else's.
    Rule(r"flight-of-the-amazon-queen", r"/\d{6}J\w\.SB$", "speech", "queen-hero"),
    Rule(r"flight-of-the-amazon-queen", r"/\d{6}P\w\.SB$", "speech", "queen-cast"),
    # Volunteers reading captions, one per language for the most part. The samples of the
    # repository come from the Danish and Dutch readers, who are in neither split.
    Rule(r"tuxpaint-.*", r"_(da|nl)\.ogg$|/apollo_lander\.ogg$", "skip"),
    Rule(r"tuxpaint-.*", r"_desc_(ro|el)\.ogg$", "speech", "tuxpaint-{0}", held_out=True),
    Rule(r"tuxpaint-.*", r"_desc_([a-z]{2})\.ogg$", "speech", "tuxpaint-{0}"),
    Rule(r"tuxpaint-.*", r"_desc\.ogg$", "speech", "tuxpaint-en"),
    Rule(r"tuxpaint-.*", r"_(en_GB|desc_pt_BR)\.ogg$", "speech", "tuxpaint-{0}"),
    Rule(r"tuxpaint-.*", r"/(animals/(insects|birds|amphibians|mammals/(bovines|dogs|equines))"
         r"|household|naturalforces|vehicles|hobbies|food)/[^_]*\.ogg$", "noise"),
    # Telephone prompts that stop at 4 kHz.
    Rule(r"asterisk-prompt-(fr|es)-\w+", r"/(silence|beep)|tt-monkeys", "skip"),
    Rule(r"asterisk-prompt-fr-armelle", r"\.gsm$", "speech", "armelle"),
    Rule(r"asterisk-prompt-es-co", r"\.gsm$", "speech", "colombia"),
    # Two fish: a deep and a high voice, and a few more on other file names.
    Rule(r"fillets-ng-data-cs", r"/cs/[^/]*-(m|v)-[^/]*\.ogg$", "speech", "fillets-{0}"),
    # Single syllables by two speakers.
    Rule(r"gcin-voice", r"/(\d)\.ogg$", "speech", "gcin-{0}"),
    Rule(r"hedgewars-data", r"/voices/(Singer|Robot)/|/voices/[^/]*/(Ow|Oof|Ooff|Jump|Hmm|Laugh"
         r"|Ouch|Ugh|Nooo|Firepunch|Kamikaze)\w*\.ogg$", "skip"),
    Rule(r"hedgewars-data", r"/voices/(British|Russian)/", "speech", "hedgewars-{0}",
         held_out=True),
    Rule(r"hedgewars-data", r"/voices/(\w+)/", "speech", "hedgewars-{0}"),
    Rule(r"hedgewars-data", r"/Music/(olympics_sd|sdmusic|hell|pirate)\.ogg$", "skip"),
    Rule(r"hedgewars-data", r"/Music/", "music"),
    Rule(r"hedgewars-data", r"/Sounds/(?!hell|Hell|Yoohoo|beewater|lowgravity|hogchant|Kiss"
         r"|custom)\w*\.ogg$", "noise"),
    # Rally co-drivers and a spoken tutorial inside packages that are otherwise effects.
    Rule(r"trigger-rally-data", r"/codriver/(\w+)/", "speech", "rally-{0}"),
    Rule(r"trigger-rally-data", r"/sounds/\w+\.wav$", "noise"),
    Rule(r"warzone2100-data", r"audio/tutorial/", "speech", "warzone-tutorial"),
    Rule(r"warzone2100-data", r"audio/sfx/misc/|/lasstrk\.", "skip"),
    Rule(r"warzone2100-data", r"audio/(sfx|multi|radclick)/", "noise"),
    # Effects.
    Rule(r"ufoai-sound", r"/(tv_newswav|radiomessage|aliencom|basealert)\.", "skip"),
    Rule(r"ufoai-sound", r"/(ambience|doors|footsteps|impact|misc|seq|ugv|ui|weapons|geoscape)/",
         "noise"),
    Rule(r"openarena-data", r"/(nightmare|1shot_greg|x_drowning)", "skip"),
    Rule(r"openarena-data", r"sound/(items|misc|movers|weapons|feedback|player/footsteps"
         r"|world/(?!new|.*ominous|.*forbidden))", "noise"),
    Rule(r"hydrogen-drumkits-effects", r"", "noise"),
    Rule(r"sonic-pi-samples", r"/(ambi_choir|mehackit_robot|bass_voxy|loop_weirdo)", "skip"),
    Rule(r"sonic-pi-samples", r"", "noise"),
    Rule(r"wesnoth-1.16-data", r"(human|elf|dwarf|orc|ogre|goblin|troll|zombie|lich|ghoul|witches"
         r"|mermen|mermaid|naga|drake|yeti|wail|groan|ugg|horn-)", "skip"),
    Rule(r"wesnoth-1.16-data", r"/sounds/", "noise"),
    Rule(r"minetest-data", r"/player_damage", "skip"),
    Rule(r"minetest-data", r"", "noise", held_out=True),
    Rule(r"colobot-common-sounds", r"/sounds/", "noise", held_out=True),
    Rule(r"colobot-common-sounds", r"/music/", "music", held_out=True),
    Rule(r"oxygen-sounds", r"", "noise"),
    Rule(r"freedroidrpg-data", r"/effects/(bullets|item_sounds)/|/effects/(?!Influencer|Thou|tux"
         r"|Shop_|No_Ammo)"
         r"[^/]*\.ogg$", "noise"),
    # Engines: all of one driving game is held out.
    Rule(r"torcs-data", r"/sound/", "noise", "machines", held_out=True),
    Rule(r"supertuxkart-data", r"/(Wilhelm|sara_airport|ugh|wee|nolok|intro2|goal_scored"
         r"|race_finish_victory|start_race)", "skip"),
    Rule(r"supertuxkart-data", r"/lenautile_restaurant", "crowd"),
    Rule(r"supertuxkart-data", r"/sfx/|/introcutscene|/library/|/kart|/black_forest/|/stk_ent",
         "noise"),
    Rule(r"supertuxkart-data", r"/music/|/tracks/", "music"),
    Rule(r"megaglest-data", r"/music/", "music"),
    Rule(r"megaglest-data", r"good_morning", "skip"),
    Rule(r"megaglest-data", r"/tilesets/|/water_sounds/|/menu/sound/|/commondata/sounds/(arrow"
         r"|anvil"
         r"|catapult_|air_|tower_|golem_walk|horseman_walk|tech_|worker_harvest|worker_mine|orni"
         r"|defense)", "noise"),
    Rule(r"0ad-data", r"/audio/music/", "music"),
    Rule(r"0ad-data", r"/audio/(actor/(fauna/(animal|movement)|gate|human/movement|mounted/movement"
         r"|ship|singlesteps)|ambient|attack|interface/(alarm|complete|ui)|resource)/", "noise"),
    Rule(r"redeclipse-data", r"/sounds/(music|theme)", "music"),
    Rule(r"redeclipse-data", r"/sounds/(ambience|sfx|weapons|interface)/"
         r"|/player/\w*(step|land|impulse)", "noise"),
    Rule(r"flightgear-data-base", r"/mk-viii/|/tcas/|coughing|/intro\.", "skip"),
    Rule(r"flightgear-data-base", r"", "noise", "machines"),
    # Wood, metal, water, animals and an orchestra, all held out; taverns hold real crowds, but
    # with words in them.
    Rule(r"widelands-data", r"/taverns/|/lobby|/message", "skip"),
    Rule(r"widelands-data", r"/sound/|/critters/", "noise", held_out=True),
    Rule(r"widelands-data", r"/music/", "music", held_out=True),
    Rule(r"xmoto-data|asc-music|warzone2100-music", r"", "music"),
    Rule(r"extremetuxracer-data", r"/sounds/", "noise"),
    Rule(r"extremetuxracer-data", r"/music/", "music"),
    Rule(r"endless-sky-data", r"", "noise"),
    Rule(r"enigma-data", r"/music/", "music"),
    Rule(r"enigma-data", r"/soundsets/", "noise"),
    Rule(r"bzflag-data", r"/(spree|hunt|thief|killteam|teamgrab)", "skip"),
    Rule(r"bzflag-data", r"", "noise"),
    Rule(r"lmms-common", r"/(applause|raving_crowd)", "crowd"),
    Rule(r"lmms-common", r"/shapes/|/breath", "skip"),
    Rule(r"lmms-common", r"", "noise"),
    # Music.
    Rule(r"freedroidrpg-data", r"/sound/music/", "music"),
    Rule(r"asterisk-moh-opsound-g722", r"", "music"),
    Rule(r"wesnoth-1.16-music", r"", "music"),
    Rule(r"singularity-music", r"", "music", held_out=True),
]


def classify(package, path):
    """(kind, voice, held_out) of a recording, or None to leave it out."""
    for rule in RULES:
        if re.fullmatch(rule.package, package):
            match = re.search(rule.path, path)
            if match:
                if rule.kind == "skip":
                    return None
                return rule.kind, rule.voice.format(*match.groups()), rule.held_out
    return None
