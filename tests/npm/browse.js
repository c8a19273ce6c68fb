// Browses the velmora-dms program with the npm package upnp-device-client,
// as a Node.js control point does: the root, then the first music album
// it finds, on the bundled sample media. The program runs on 127.0.0.1 and
// a free port, in a working folder of its own, with the full tree.
//
// Usage: node browse.js VELMORA_DMS_BINARY
// Exit status 0 when the browse went as it should, 1 when not, and 77
// (skipped) when the package is not installed: run "npm ci" here first.
'use strict';
const { spawn } = require('child_process');
const fs = require('fs');
const net = require('net');
const os = require('os');
const path = require('path');

let Client;
try {
  Client = require(path.join(__dirname, 'node_modules', 'upnp-device-client'));
} catch (e) {
  console.log('upnp-device-client is not installed (npm ci in tests/npm): skipped');
  process.exit(77);
}

const work = fs.mkdtempSync(path.join(os.tmpdir(), 'velmora-npm-'));
let host = null;

// Ends the program, and waits for it, before this one ends.
function finish(status, ...words) {
  if (words.length) console.log(...words);
  const done = () => {
    fs.rmSync(work, { recursive: true, force: true });
    process.exit(status);
  };
  if (host && host.exitCode === null && host.signalCode === null) {
    host.once('exit', done);
    host.kill('SIGKILL');
  } else {
    done();
  }
}
setTimeout(() => finish(1, 'timed out'), 60000).unref();

function freePort() {
  return new Promise((resolve, reject) => {
    const s = net.createServer().listen(0, '127.0.0.1', () => {
      const port = s.address().port;
      s.close(() => resolve(port));
    }).on('error', reject);
  });
}

// Starts the program; resolves once its first pass over the folders ended.
function start(port) {
  host = spawn(process.argv[2], ['--workdir', work, '--ip', '127.0.0.1', '--port', String(port),
                                 '--flags', '0x40'], { stdio: ['ignore', 'pipe', 'pipe'] });
  let seen = '';
  return new Promise((resolve, reject) => {
    const read = (chunk) => {
      seen += chunk;
      if (seen.includes('Scan finished')) resolve();
    };
    host.stdout.on('data', read);
    host.stderr.on('data', read);
    host.once('exit', () => reject(new Error('the program ended: ' + seen)));
  });
}

function browse(client, id) {
  const args = { ObjectID: id, BrowseFlag: 'BrowseDirectChildren', Filter: '*', StartingIndex: 0,
                 RequestedCount: 0, SortCriteria: '' };
  return new Promise((resolve, reject) => {
    client.callAction('ContentDirectory', 'Browse', args, (err, r) => (err ? reject(err) : resolve(r)));
  });
}

const unescape = (t) => t.replace(/&quot;/g, '"').replace(/&lt;/g, '<').replace(/&gt;/g, '>').replace(/&amp;/g, '&');

// The objects of a DIDL-Lite Result, by their element's own tags.
function objects(result) {
  const out = [];
  for (const m of result.matchAll(/<(container|item) ([^>]*)>([\s\S]*?)<\/\1>/g)) {
    const field = (re) => { const f = m[3].match(re); return f ? unescape(f[1]) : ''; };
    out.push({ kind: m[1], id: unescape(m[2].match(/\bid="([^"]*)"/)[1]),
               title: field(/<dc:title>([^<]*)<\/dc:title>/), cls: field(/<upnp:class>([^<]*)<\/upnp:class>/),
               res: field(/<res [^>]*>([^<]*)<\/res>/) });
  }
  return out;
}

async function main() {
  const port = await freePort();
  await start(port);
  const client = new Client(`http://127.0.0.1:${port}/DeviceDescription.xml`);
  const root = await browse(client, '0');
  const top = objects(root.Result);
  console.log('root:', top.map((o) => o.title).join(', '));
  if (top.length < 2 || Number(root.NumberReturned) !== top.length || Number(root.TotalMatches) !== top.length ||
      top.some((o) => o.kind !== 'container'))
    return finish(1, 'the root is not a list of containers:', root);
  // Breadth first through the containers, bounded, to the first album.
  const queue = top.map((o) => o.id);
  for (let asked = 0; queue.length && asked < 200; asked++) {
    const list = objects((await browse(client, queue.shift())).Result);
    const album = list.find((o) => o.cls === 'object.container.album.musicAlbum');
    if (!album) {
      queue.push(...list.filter((o) => o.kind === 'container').map((o) => o.id));
      continue;
    }
    const answer = await browse(client, album.id);
    const tracks = objects(answer.Result);
    console.log(`album ${album.title}:`, tracks.map((o) => `${o.title} <${o.res}>`).join(', '));
    const good = tracks.length === 2 && Number(answer.TotalMatches) === 2 &&
      tracks.every((o) => o.cls === 'object.item.audioItem.musicTrack' && o.res.startsWith(`http://127.0.0.1:${port}/`));
    return finish(good ? 0 : 1, good ? 'done' : 'the album is not the two sample tracks');
  }
  return finish(1, 'no album found');
}

// The package throws from its own callbacks on answers it cannot read.
process.on('uncaughtException', (e) => finish(1, 'failed:', e.message));
main().catch((e) => finish(1, 'failed:', e.message));
