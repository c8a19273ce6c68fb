#!/usr/bin/python3
# Takes what a media server offers as players do: walks its tree with
# upnp_walk.py, then for every res element of every file's item parses the
# protocolInfo with GUPnP-AV, fetches the URL, demuxes it with ffprobe and
# holds size, duration, container, codecs and resolution against the
# DIDL-Lite where it gives them; asks gupnp-dlna-info for the profile of
# each JPEG and MP4; plays one MP3 and one MP4 to the end in a GStreamer
# playbin with fake sinks. Where the server's value may differ:
# - MP3 and MP4 files are not read yet: no duration, and MP4 no profile.
# - gupnp-dlna-info names the smallest JPEG class that fits, JPEG_TN up to
#   160x160, where the server names JPEG_SM for any original up to 640x480.
# - A profile gupnp-dlna-info cannot compute, or the tool missing, is told
#   and not held against the server.
# Prints "failed ..." per problem, and "done" with status 0 when none. Needs
# upnp_walk.py's packages, ffprobe, gir1.2-gstreamer-1.0 with the base, good
# and libav plugins, and gupnp-dlna-tools.
import argparse
import collections
import html
import json
import os
import re
import shutil
import subprocess
import sys
import urllib.request

import gi
import upnp_walk
from upnp_walk import GLib, GUPnPAV, fail

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402

# What ffprobe calls the container and the streams of each MIME type.
DEMUX = {"audio/mpeg": ({"mp3"}, {"mp3"}), "audio/mp4": ({"mp4"}, {"aac"}),
         "video/mp4": ({"mp4"}, {"h264", "aac"}), "image/jpeg": ({"image2", "jpeg_pipe"}, {"mjpeg"})}
compared = collections.Counter()       # the DIDL values held against the tools


def resources(item):
    """The attributes and URL of each res element of an item."""
    for attrs, url in re.findall(r"<res\b([^>]*)>([^<]*)</res>", item.get_xml_string()):
        yield {k: html.unescape(v) for k, v in re.findall(r'(\w+)="([^"]*)"', attrs)}, html.unescape(url)


def probe(url, res, mime, where):
    with urllib.request.urlopen(url, timeout=10) as answer:
        body, length = answer.read(64 << 20), answer.headers.get("Content-Length")
    compared["size"] += "size" in res
    if "size" in res and not int(res["size"]) == len(body) == int(length or -1):
        fail("size", where, "didl", res["size"], "Content-Length", length, "body", len(body))
    if mime not in DEMUX:
        return
    run = subprocess.run(["ffprobe", "-v", "error", "-show_format", "-show_streams", "-of", "json", url],
                         capture_output=True, text=True, timeout=30)
    if run.returncode != 0:
        return fail("ffprobe", where, run.stderr.strip())
    got = json.loads(run.stdout)
    form, codecs = got["format"], {s.get("codec_name") for s in got["streams"]}
    compared["codecs"] += 1
    if not DEMUX[mime][0] & set(form["format_name"].split(",")) or not DEMUX[mime][1] <= codecs:
        fail("demux", where, mime, "as", form["format_name"], sorted(codecs))
    if "duration" in res:
        compared["duration"] += 1
        h, m, s = res["duration"].split(":")
        if abs(int(h) * 3600 + int(m) * 60 + float(s) - float(form.get("duration", -9))) > 1:
            fail("duration", where, "didl", res["duration"], "ffprobe", form.get("duration"))
    if "resolution" in res:
        compared["resolution"] += 1
        sizes = {"%dx%d" % (s["width"], s["height"]) for s in got["streams"] if "width" in s}
        if res["resolution"] not in sizes:
            fail("resolution", where, "didl", res["resolution"], "ffprobe", sorted(sizes))


def profiles(named):
    """What gupnp-dlna-info computes for each URL against the profile its
    res names (None for none)."""
    if not shutil.which("gupnp-dlna-info"):
        return print("gupnp-dlna-info is missing: no profile checked")
    run = subprocess.run(["gupnp-dlna-info", "-t", "10"] + list(named), capture_output=True, text=True, timeout=60)
    computed = dict(re.findall(r"^URI: (\S+)\n(?:Profile Name: (\S+))?", run.stdout, re.M))
    seen = collections.Counter()
    for url, name in named.items():
        got = computed.get(url) or None
        seen["named %s computed %s" % (name, got)] += 1
        if name and got and got != name and (got, name) != ("JPEG_TN", "JPEG_SM"):
            fail("profile", url, "named", name, "computed", got)
    for pair, count in sorted(seen.items()):
        print("profile", pair, "x%d" % count)


def play(url, timeout):
    """None once playbin reaches the end of the stream, else what stopped it."""
    pipeline = Gst.ElementFactory.make("playbin", None)
    pipeline.set_property("uri", url)
    for kind in ("audio-sink", "video-sink"):
        pipeline.set_property(kind, Gst.ElementFactory.make("fakesink", None))
    pipeline.set_state(Gst.State.PLAYING)
    message = pipeline.get_bus().timed_pop_filtered(int(timeout * Gst.SECOND),
                                                    Gst.MessageType.EOS | Gst.MessageType.ERROR)
    pipeline.set_state(Gst.State.NULL)
    if message is None:
        return "no end within %s s" % timeout
    return message.parse_error()[0].message if message.type == Gst.MessageType.ERROR else None


def main():
    parser = argparse.ArgumentParser()
    for name in ("--interface", "--address", "--timeout"):
        parser.add_argument(name, required=True)
    args = parser.parse_args()
    for name in ("http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY"):
        os.environ.pop(name, None)         # the server is on the test's own link
    Gst.init(None)
    proxy, keep = upnp_walk.discover(args.interface, args.address, float(args.timeout))
    if not proxy:
        return fail("no ContentDirectory found") or 1
    items, files, named, playable = {}, {}, {}, {}
    upnp_walk.walk(proxy, 500, items)
    for oid, item in sorted(items.items()):     # each file once, however many containers list it
        files.setdefault((item.get_ref_id() or oid).split("$")[-1], item)
    for item in files.values():
        listed = list(resources(item)) or fail("no res", item.get_id()) or []
        for n, (res, url) in enumerate(listed):
            where = "%s#%d" % (item.get_id(), n)
            try:
                info = GUPnPAV.ProtocolInfo.new_from_string(res.get("protocolInfo", ""))
                probe(url, res, info.get_mime_type(), where)
            except GLib.Error as e:
                fail("protocolInfo", where, repr(res.get("protocolInfo")), e.message)
                continue
            except (OSError, ValueError, subprocess.TimeoutExpired) as e:
                fail("fetch", where, url, e)
            if info.get_mime_type() in ("image/jpeg", "video/mp4"):
                named[url] = info.get_dlna_profile()
            playable.setdefault(info.get_mime_type(), url)
            compared["res"] += 1
    profiles(named)
    for mime in ("audio/mpeg", "video/mp4"):
        stopped = play(playable[mime], float(args.timeout)) if mime in playable else "nothing to play"
        print("played", mime, playable.get(mime)) if stopped is None else fail("play", mime, stopped)
    print("files", len(files), "compared", dict(sorted(compared.items())))
    if not upnp_walk.problems:
        print("done")
    return 1 if upnp_walk.problems else 0


if __name__ == "__main__":
    sys.exit(main())
