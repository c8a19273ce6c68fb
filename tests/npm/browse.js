// Browses the velmora-dms program with the npm package upnp-device-client:
// the root, then the first music album it finds in the bundled sample media.
// The program runs on 127.0.0.1 and a free port, full tree, own work folder.
// Usage: node browse.js VELMORA_DMS_BINARY. Exit 0 good, 1 bad, 77 skipped
// when the package is not installed ("npm ci" here first).
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

function finish(status, ...words) {
  if (words.length) console.log(...words);
  const done = () => { fs.rmSync(work, { recursive: true, force: true }); process.exit(status); };
  if (host && host.exitCode === null && host.signalCode === null) host.once('exit', done).kill('SIGKILL');
  else done();
}
setTimeout(() => finish(1, 'timed out'), 60000).unref();
process.on('uncaughtException', (e) => finish(1, 'failed:', e.message));   // the package throws from callbacks

const freePort = () => new Promise((resolve) => {
  const s = net.createServer().listen(0, '127.0.0.1', () => { const p = s.address().port; s.close(() => resolve(p)); });
});

// Resolves once the program's first pass over the folders ended.
function start(port) {
  host = spawn(process.argv[2], ['--workdir', work, '--ip', '127.0.0.1', '--port', String(port), '--flags', '0x40']);
  let seen = '';
  return new Promise((resolve, reject) => {
    const read = (chunk) => { seen += chunk; if (seen.includes('Scan finished')) resolve(); };
    host.stdout.on('data', read);
    host.stderr.on('data', read);
    host.once('exit', () => reject(new Error('the program ended: ' + seen)));
  });
}

const browse = (client, id) => new Promise((resolve, reject) => client.callAction('ContentDirectory', 'Browse',
  { ObjectID: id, BrowseFlag: 'BrowseDirectChildren', Filter: '*', StartingIndex: 0, RequestedCount: 0, SortCriteria: '' },
  (err, r) => (err ? reject(err) : resolve(r))));

// The objects of a Result: kind, id, title, class and first res URL.
function objects(result) {
  const text = result.replace(/&quot;/g, '"').replace(/&lt;/g, '<').replace(/&gt;/g, '>').replace(/&amp;/g, '&');
  return [...text.matchAll(/<(container|item) [^>]*?\bid="([^"]*)"[^>]*>([\s\S]*?)<\/\1>/g)].map((m) => {
    const field = (tag) => (m[3].match(new RegExp(`<${tag}[^>]*>([^<]*)</${tag}>`)) || [])[1] || '';
    return { kind: m[1], id: m[2], title: field('dc:title'), cls: field('upnp:class'), res: field('res') };
  });
}

async function main() {
  const port = await freePort();
  await start(port);
  const client = new Client(`http://127.0.0.1:${port}/DeviceDescription.xml`);
  const root = await browse(client, '0');
  const top = objects(root.Result);
  if (top.length < 2 || Number(root.TotalMatches) !== top.length || top.some((o) => o.kind !== 'container'))
    return finish(1, 'the root is not a list of containers:', root);
  const queue = top.map((o) => o.id);      // breadth first, bounded, to the first album
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
main().catch((e) => finish(1, 'failed:', e.message));
