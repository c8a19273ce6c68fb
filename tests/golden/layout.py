# layout.py: lays out the expected tree outlines of db_golden_test from the
# library's values as the folders show them, which are written below by
# hand. It places folders in the order they are first made (the value's
# folder, then "All" beside it at a level without index) and references in
# the order the files are added; nothing sorts. Run: python3 layout.py DIR
import sys

MUSIC, ALBUMC, ARTISTC, GENREC, STORAGE, CONT, PHOTOALB, VIDEOC, PLAYLIST = (
    "object.container.musicContainer", "object.container.album.musicAlbum",
    "object.container.person.musicArtist", "object.container.genre.musicGenre",
    "object.container", "object.container", "object.container.album.photoAlbum",
    "object.container.videoContainer", "object.container.playlistContainer")
CLS = {"audio": "object.item.audioItem.musicTrack", "photo": "object.item.imageItem.photo",
       "video": "object.item.videoItem.movie"}
DEFAULT = {"audio": MUSIC, "photo": PHOTOALB, "video": VIDEOC}

class C:
    def __init__(s, title, cls):
        s.title, s.cls, s.kids = title, cls, []
    def find_or_make(s, title, cls):
        for k in s.kids:
            if isinstance(k, C) and k.title == title:
                return k
        c = C(title, cls); s.kids.append(c); return c
    def ref(s, title):
        s.kids.append(("ref", title))

# title, artist folder, album, genre, date, composer, groups of 3 and of 4, path dirs
T = []
def track(title, artist, album, genre, date, composer, group, dirs):
    T.append(dict(kind="audio", title=title, artist=artist, album=album, genre=genre,
                  year=date[:4], month=date[5:7], day=date[8:10], date=date, composer=composer, group=group.split()[0], group4=group.split()[1], dirs=dirs))
P = []
def other(kind, title, date, dirs):
    P.append(dict(kind=kind, title=title, year=date[:4], month=date[5:7], day=date[8:10], date=date, dirs=dirs))

# ---- The library as the folders show it, derived by hand from the tags:
# adapted case ("The " behind), "Various" for the sampler, "Unknown" for
# what is missing, "0000"/"00" without a date, letter groups of three
# and of four after folding (Ä to A, Å to Z, digits first).
G = "Andersson/Ulvaeus"
for t in ("Dancing Queen", "Fernando", "Waterloo", "Chiquitita"):
    track(t, "Abba", "Gold", "Pop", "1992-09-21", G, "ABC ABCD", ["Abba", "Gold"])
for t in ("Come Together", "Something", "Here Comes The Sun"):
    track(t, "Beatles, The", "Abbey Road", "Rock", "1969-09-26", "Unknown", "ABC ABCD", ["The Beatles", "Abbey Road"])
for t in ("Help!", "Yesterday"):
    track(t, "Beatles, The", "Help!", "Rock", "1965-08-06", "Unknown", "ABC ABCD", ["The Beatles", "Help!"])
for t in ("Krach", "Stille"):
    track(t, "Ärger", "Laut", "Rock", "2001-03-03", "Unknown", "ABC ABCD", ["Ärger", "Laut"])
for t in ("Vals", "Polska"):
    track(t, "Åsa Jinder", "Visor", "Folk", "1998-06-01", "Unknown", "YZ YZ", ["Åsa Jinder", "Visor"])
for t in ("Symphony No. 5", "Symphony No. 7"):
    track(t, "Berliner Philharmoniker", "Symphonies 5 & 7", "Classical", "1963-01-01", "Beethoven", "ABC ABCD",
          ["Berliner Philharmoniker", "Symphonies 5 & 7"])
track("9 Crimes", "Damien Rice", "9", "Folk", "2006-11-06", "Unknown", "DEF ABCD", ["Damien Rice", "9"])
for t in ("I'm Not In Love", "Une Nuit A Paris"):
    track(t, "10cc", "Original Soundtrack, The", "Rock", "1975-03-01", "Unknown", "ABC ABCD", ["10cc", "The Original Soundtrack"])
track("99 Luftballons", "Nena", "Nena", "Pop", "1983-01-01", "Unknown", "MNO MNOP", ["Nena", "Nena"])
for t in ("1979", "Zero"):
    track(t, "Smashing Pumpkins, The", "Mellon Collie And The Infinite Sadness", "Rock", "1995-10-24", "Unknown", "STU QRST",
          ["The Smashing Pumpkins", "Mellon Collie And The Infinite Sadness"])
for t in ("Leuchtturm", "Super Trouper", "The Look", "Brother Louie"):
    track(t, "Various", "Bravo Hits 12", "Pop", "1996-02-01", "Unknown", "VWX UVWX", ["Sampler", "Bravo Hits 12"])
for t in ("Atlantis Is Calling", "Geronimo's Cadillac"):
    track(t, "Modern Talking", "Ready For Romance", "Pop", "1986-05-01", "Unknown", "MNO MNOP", ["Modern Talking", "Ready For Romance"])
for t in ("Listen To Your Heart", "Dangerous"):
    track(t, "Roxette", "Look Sharp!", "Pop", "1988-10-21", "Unknown", "PQR QRST", ["Roxette", "Look Sharp!"])
for t in ("Desire", "Oh Yeah"):
    track(t, "Yello", "Stella", "Electronic", "1985-01-01", "Unknown", "YZ YZ", ["Yello", "Stella"])
track("The Race", "Yello", "Gold", "Electronic", "1988-06-01", "Unknown", "YZ YZ", ["Yello", "Gold"])
track("demo take", "Unknown", "Unknown", "Unknown", "0000-00-00", "Unknown", "STU UVWX", [])
other("photo", "beach", "2019-07-14", ["Photos", "2019"])
other("photo", "sunset", "2019-08-02", ["Photos", "2019"])
other("photo", "scan", "0000-00-00", ["Photos"])
other("video", "holiday", "2019-07-15", ["Videos"])
for it in T:
    it["duration"], it["stars"] = "0:00:00", None
T[0]["duration"], T[0]["stars"] = "0:03:51.500", "*****"
T[1]["duration"], T[1]["stars"] = "0:04:14", "***"
# ----

TOKENS = {"%ARTIST": ("artist", ARTISTC), "%ALBUM": ("album", ALBUMC), "%GENRE": ("genre", GENREC),
          "%COMPOSER": ("composer", ARTISTC), "%YEAR": ("year", None), "%MONTH": ("month", None), "%DAY": ("day", None),
          "%DATE": ("date", None), "%FOO": (None, None),
          "%DURATION": ("duration", MUSIC), "%RATING": ("stars", None)}
PREFIX = [""]

def level(folder, it, levels, k):
    if k >= len(levels):
        folder.ref(it["title"]); return
    rule, n = levels[k], 0
    if rule.startswith("["):
        n = int(rule[1:rule.index("]")]); rule = rule[rule.index("]") + 1:]
    if rule == "%PATH":
        f = folder
        for d in it["dirs"]:
            f = f.find_or_make(PREFIX[0] + d if n == 0 else d, STORAGE)
    else:
        key, cls = TOKENS[rule]
        cls = cls or DEFAULT[it["kind"]]
        if key is None or it.get(key) is None:
            f = None
        elif n == 4:
            f = folder.find_or_make(it["group4"], CONT).find_or_make(it[key], cls)
        elif n:
            f = folder.find_or_make(it["group"], CONT).find_or_make(it[key], cls)
        else:
            f = folder.find_or_make(it[key], cls)
    if f:
        level(f, it, levels, k + 1)
    if n == 0:
        level(folder.find_or_make("All", DEFAULT[it["kind"]]), it, levels, k + 1)

def build(flat, alltracks, music_nodes, picture_nodes, video_nodes, played, prefix=""):
    PREFIX[0] = prefix
    root = C("root", CONT)
    items = {"audio": T, "photo": [p for p in P if p["kind"] == "photo"], "video": [p for p in P if p["kind"] == "video"]}
    if flat:
        for title, cls, kind in (("Music", MUSIC, "audio"), ("Pictures", PHOTOALB, "photo"), ("Videos", VIDEOC, "video")):
            c = root.find_or_make(title, cls)
            for it in items[kind]:
                c.kids.append(("item", it))
        return root
    m = root.find_or_make("Music", CONT)
    pl = m.find_or_make("Playlists", CONT)
    pl.find_or_make("- Most Played -", PLAYLIST)
    last = pl.find_or_make("- Last Played -", PLAYLIST)
    for it in T[:played]:
        last.ref(it["title"])
    allm = m.find_or_make(alltracks, MUSIC)
    mn = [(m.find_or_make(t, CONT), lv) for t, lv in music_nodes]
    p = root.find_or_make("Pictures", CONT)
    allp = p.find_or_make("All Pictures", PHOTOALB)
    pn = [(p.find_or_make(t, PHOTOALB), lv) for t, lv in picture_nodes]
    v = root.find_or_make("Videos", CONT)
    allv = v.find_or_make("All Videos", VIDEOC)
    vn = [(v.find_or_make(t, CONT), lv) for t, lv in video_nodes]
    for it in T:
        allm.kids.append(("item", it))
        for node, lv in mn:
            level(node, it, lv, 0)
    for it in items["photo"]:
        allp.kids.append(("item", it))
        for node, lv in pn:
            level(node, it, lv, 0)
    for it in items["video"]:
        allv.kids.append(("item", it))
        for node, lv in vn:
            level(node, it, lv, 0)
    return root

def out2(o, d, lines):
    if isinstance(o, C):
        lines.append("  " * d + "%s [%s] (%d)" % (o.title, o.cls, len(o.kids)))
        for k in o.kids:
            out2(k, d + 1, lines)
    elif o[0] == "item":
        lines.append("  " * d + "%s [%s]" % (o[1]["title"], CLS[o[1]["kind"]]))
    else:
        lines.append("  " * d + "%s [object.item]" % o[1])

PIC = [("Album", ["%PATH"]), ("Date", ["%YEAR", "%MONTH"])]
VID = [("Folders", ["%PATH"])]
cases = {
    "flat-autotree0": (1, None, [], [], [], 0),
    "full-autotree0": (0, "All Tracks", [("Zero", ["[0]%ARTIST"]), ("Odd", ["%FOO", "%ALBUM"]),
                                         ("Wide", ["[4]%ARTIST"]), ("Long", ["%DURATION"]),
                                         ("Stars", ["%RATING"]), ("Dirs", ["%PATH"])],
                       [("Days", ["%DAY"])], [("Dates", ["%DATE"])], 3, "~"),
    "full-autotree1": (0, "All Tracks", [("Artist", ["%ARTIST"]), ("Genre", ["%GENRE"]), ("Album", ["%ALBUM"]),
                                         ("Folders", ["%PATH"])], PIC, VID, 3),
    "full-autotree2": (0, "Titles", [("Artist", ["%ARTIST", "%ALBUM"]), ("Album", ["%ALBUM"]),
                                     ("Genre", ["%GENRE", "%ARTIST", "%ALBUM"]), ("Composer", ["%COMPOSER"])],
                       PIC, VID, 3),
    "full-autotree3": (0, "All Tracks", [("Artist", ["%ARTIST"]), ("Genre", ["%GENRE"]), ("Album", ["%ALBUM"]),
                                         ("Folders", ["%PATH"]), ("Artist/Album", ["%ARTIST", "%ALBUM"]),
                                         ("Genre/Artist", ["%GENRE", "%ARTIST", "%ALBUM"]),
                                         ("Genre Index", ["%GENRE", "[3]%ARTIST"]),
                                         ("Year/Artist", ["%YEAR", "%ARTIST", "%ALBUM"]),
                                         ("Artist Index", ["[3]%ARTIST", "%ALBUM"])], PIC, VID, 3),
}
for name, args in cases.items():
    lines = []
    out2(build(*args), 0, lines)
    open("%s/tree-%s.txt" % (sys.argv[1], name), "w").write("\n".join(lines) + "\n")
