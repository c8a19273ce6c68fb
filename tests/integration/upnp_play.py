#!/usr/bin/python3
# Takes what a media server offers as players do: walks its tree with
# upnp_walk.py's GUPnP control point, then for every res element of every
# item parses its protocolInfo with GUPnP-AV, fetches its URL, demuxes it
# with ffprobe and holds size, duration, format, codecs and resolution
# against what the DIDL-Lite says of them; asks gupnp-dlna-info for the DLNA
# profile of the JPEG and MP4 resources; and plays one MP3 and one MP4 to
# the end through a GStreamer playbin with fake sinks.
#
# Where the server's own value stands apart from the tools':
# - MP3 and MP4 files are not read yet: their res has no duration, and an
#   MP4 no profile; what is missing is not compared.
# - gupnp-dlna-info names the smallest JPEG class a picture fits, JPEG_TN up
#   to 160x160; the server names JPEG_SM for every original up to 640x480,
#   so JPEG_TN there passes for JPEG_SM.
# - A profile that gupnp-dlna-info cannot compute, or the tool missing, is
#   reported and not held against the server.
#
# Prints a line per resource, "failed ..." per problem and "done" with
# status 0 when there was none. Needs, beside upnp_walk.py's packages,
# ffprobe (ffmpeg), gir1.2-gstreamer-1.0 with the base, good and libav
# plugins, and gupnp-dlna-tools.
import argparse
import html
import json
import os
import re
import shutil
import subprocess
import sys
import urllib.error
import urllib.request

import gi
import upnp_walk
from upnp_walk import GLib, GUPnPAV, fail

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402

# What ffprobe calls the container and the streams of each MIME type.
DEMUX = {"audio/mpeg": ("mp3", {"mp3"}), "audio/mp4": ("mp4", {"aac"}), "video/mp4": ("mp4", {"h264", "aac"}),
         "image/jpeg": ("jpeg_pipe", {"mjpeg"})}
MAX_BODY = 64 << 20


def seconds(text):
    """A DIDL-Lite duration, H:MM:SS.mmm, in seconds."""
    h, m, s = text.split(":")
    return int(h) * 3600 + int(m) * 60 + float(s)


def resources(item):
    """The attributes and URL of each res element of an item."""
    for attrs, url in re.findall(r"<res\b([^>]*)>([^<]*)</res>", item.get_xml_string()):
        res = {k: html.unescape(v) for k, v in re.findall(r'(\w+)="([^"]*)"', attrs)}
        yield res, html.unescape(url)


def probe(url, res, where):
    """Fetch and demux one resource, holding it against its DIDL values."""
    with urllib.request.urlopen(url, timeout=10) as answer:
        body = answer.read(MAX_BODY)
        length = answer.headers.get("Content-Length")
    if "size" in res and not int(res["size"]) == len(body) == int(length or -1):
        fail("size", where, "didl", res["size"], "Content-Length", length, "body", len(body))
    run = subprocess.run(["ffprobe", "-v", "error", "-show_format", "-show_streams", "-of", "json", url],
                         capture_output=True, text=True, timeout=30)
    if run.returncode != 0:
        return fail("ffprobe", where, run.stderr.strip())
    got = json.loads(run.stdout)
    mime = res["protocolInfo"].split(":")[2].split(";")[0]
    container, codecs = DEMUX.get(mime, (None, set()))
    found = {s.get("codec_name") for s in got["streams"]}
    if container and container not in got["format"]["format_name"].split(",") or not codecs <= found:
        fail("demux", where, mime, "as", got["format"]["format_name"], sorted(found))
    if "duration" in res and abs(seconds(res["duration"]) - float(got["format"].get("duration", -9))) > 1:
        fail("duration", where, "didl", res["duration"], "ffprobe", got["format"].get("duration"))
    sizes = {"%dx%d" % (s["width"], s["height"]) for s in got["streams"] if "width" in s}
    if "resolution" in res and res["resolution"] not in sizes:
        fail("resolution", where, "didl", res["resolution"], "ffprobe", sorted(sizes))


def dlna_profile(url, named, where):
    """The profile gupnp-dlna-info computes must be the one the res names."""
    run = subprocess.run(["gupnp-dlna-info", "-t", "10", url], capture_output=True, text=True, timeout=30)
    got = re.search(r"^Profile Name: (\S+)", run.stdout, re.M)
    got = got.group(1) if got else None
    print("profile", where, "named", named, "gupnp-dlna-info", got, flush=True)
    if named and got and got != named and (got, named) != ("JPEG_TN", "JPEG_SM"):
        fail("profile", where, "named", named, "computed", got)


def play(url, timeout):
    """None once playbin reaches the end of the stream, else what stopped it."""
    pipeline = Gst.ElementFactory.make("playbin", None)
    pipeline.set_property("uri", url)
    for kind in ("audio-sink", "video-sink"):
        sink = Gst.ElementFactory.make("fakesink", None)
        sink.set_property("sync", False)
        pipeline.set_property(kind, sink)
    pipeline.set_state(Gst.State.PLAYING)
    message = pipeline.get_bus().timed_pop_filtered(int(timeout * Gst.SECOND),
                                                    Gst.MessageType.EOS | Gst.MessageType.ERROR)
    pipeline.set_state(Gst.State.NULL)
    if message is None:
        return "no end within %s s" % timeout
    return message.parse_error()[0].message if message.type == Gst.MessageType.ERROR else None


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--interface", required=True)
    parser.add_argument("--address", required=True)
    parser.add_argument("--timeout", type=float, default=15.0)
    args = parser.parse_args()
    for name in ("http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY"):
        os.environ.pop(name, None)         # the server is on the test's own link
    Gst.init(None)

    proxy, keep = upnp_walk.discover(args.interface, args.address, args.timeout)
    if not proxy:
        fail("no ContentDirectory found")
        return 1
    items = {}
    upnp_walk.walk(proxy, 500, items)
    dlna_info = shutil.which("gupnp-dlna-info")
    if not dlna_info:
        print("gupnp-dlna-info is missing: no profile checked")
    playable = {}
    for oid, item in sorted(items.items()):
        for n, (res, url) in enumerate(resources(item)):
            where = "%s#%d" % (oid, n)
            info = res.get("protocolInfo", "")
            try:
                parsed = GUPnPAV.ProtocolInfo.new_from_string(info)
            except GLib.Error as e:
                fail("protocolInfo", where, repr(info), e.message)
                continue
            print("res", where, url, info, flush=True)
            try:
                probe(url, res, where)
            except (OSError, subprocess.TimeoutExpired) as e:
                fail("fetch", where, url, e)
            mime = parsed.get_mime_type()
            if dlna_info and mime in ("image/jpeg", "video/mp4"):
                dlna_profile(url, parsed.get_dlna_profile(), where)
            playable.setdefault(mime, url)
    for mime in ("audio/mpeg", "video/mp4"):
        if mime not in playable:
            fail("nothing of", mime, "to play")
        elif (stopped := play(playable[mime], args.timeout)) is not None:
            fail("play", playable[mime], stopped)
        else:
            print("played", mime, playable[mime])
    print("items", len(items))
    if not upnp_walk.problems:
        print("done")
    return 1 if upnp_walk.problems else 0


if __name__ == "__main__":
    sys.exit(main())
