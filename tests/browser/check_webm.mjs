// Plays, seeks and appends WebM files in a headless Chromium; prints one line per file, exits 1 if any failed.
// Usage: node check_webm.mjs MANIFEST.json
// The manifest: {"modules": node_modules dir holding playwright-core, "chromium": browser path,
//   "files": [{"name", "path", "mime" (e.g. 'video/webm; codecs="vp8, vorbis"'), "duration" (seconds, ffprobe's),
//              "tolerance" (seconds the buffered end may differ from duration)}]}
import { createRequire } from 'node:module';
import fs from 'node:fs';
import http from 'node:http';
import path from 'node:path';

const manifest = JSON.parse(fs.readFileSync(process.argv[2], 'utf8'));
const { chromium } = createRequire(path.join(manifest.modules, 'x.js'))('playwright-core');
const CHUNK = 64 * 1024;
const PER_FILE_MS = 60000;

// Serves the manifest's files by index, with single byte ranges (seeking in a <video> needs them), and an empty page.
function serve(files) {
  const server = http.createServer((req, res) => {
    const m = /^\/f\/(\d+)\.webm$/.exec(req.url);
    if (!m || !files[+m[1]]) {
      res.writeHead(req.url === '/' ? 200 : 404, { 'Content-Type': 'text/html' });
      res.end('<!doctype html><title>webm</title>');
      return;
    }
    const file = files[+m[1]].path;
    const size = fs.statSync(file).size;
    const range = /^bytes=(\d*)-(\d*)$/.exec(req.headers.range || '');
    let start = 0, end = size - 1, status = 200;
    if (range) {
      if (range[1] === '') start = Math.max(0, size - Number(range[2]));
      else { start = Number(range[1]); if (range[2] !== '') end = Math.min(end, Number(range[2])); }
      if (start > end || start >= size) {
        res.writeHead(416, { 'Content-Range': `bytes */${size}` });
        res.end();
        return;
      }
      status = 206;
    }
    const headers = { 'Content-Type': 'video/webm', 'Accept-Ranges': 'bytes', 'Content-Length': end - start + 1 };
    if (status === 206) headers['Content-Range'] = `bytes ${start}-${end}/${size}`;
    res.writeHead(status, headers);
    if (req.method === 'HEAD') res.end();
    else fs.createReadStream(file, { start, end }).pipe(res);
  });
  return new Promise(resolve => server.listen(0, '127.0.0.1', () => resolve(server)));
}

// Runs in the page: loads, plays, seeks to 50 % and 90 %, plays to the end. Returns a list of failures.
async function playInElement({ url, duration, audio, video: hasVideo }) {
  const failures = [];
  const video = document.createElement('video');
  video.muted = true;
  video.preload = 'auto';
  document.body.appendChild(video);
  const errorText = () => video.error ? `MediaError ${video.error.code}: ${video.error.message || '(no message)'}` : '';
  const once = (event, ms) => new Promise((resolve, reject) => {
    const timer = setTimeout(() => { cleanup(); reject(new Error(`no '${event}' within ${ms} ms`)); }, ms);
    const ok = () => { cleanup(); resolve(); };
    const bad = () => { cleanup(); reject(new Error(errorText() || 'error event')); };
    const cleanup = () => { clearTimeout(timer); video.removeEventListener(event, ok); video.removeEventListener('error', bad); };
    video.addEventListener(event, ok);
    video.addEventListener('error', bad);
  });
  // A frame really decoded after a seek: a video frame callback where there is a picture, else data at the position.
  const frameDecoded = () => new Promise(resolve => {
    const timer = setTimeout(() => resolve(video.readyState >= 2), 5000);
    if (video.videoWidth > 0 && video.requestVideoFrameCallback) {
      video.requestVideoFrameCallback(() => { clearTimeout(timer); resolve(true); });
    } else if (video.readyState >= 2) {
      clearTimeout(timer);
      resolve(true);
    } else {
      video.addEventListener('loadeddata', () => { clearTimeout(timer); resolve(true); }, { once: true });
    }
  });
  try {
    const loaded = once('loadedmetadata', 15000);
    video.src = url;
    await loaded;
    if (Math.abs(video.duration - duration) > 0.5) failures.push(`element duration ${video.duration} s, ffprobe ${duration} s`);
    await video.play();
    for (const share of [0.5, 0.9]) {
      const target = duration * share;
      const seeked = once('seeked', 15000);
      video.currentTime = target;
      await seeked;
      if (Math.abs(video.currentTime - target) > 1) failures.push(`seek to ${target.toFixed(2)} s landed at ${video.currentTime} s`);
      if (!(await frameDecoded())) failures.push(`nothing decoded after seeking to ${target.toFixed(2)} s (readyState ${video.readyState})`);
    }
    if (!video.ended) await once('ended', Math.max(15000, duration * 300));
    // A track the browser leaves disabled plays as silence or as no picture without an error.
    if (audio && !(video.webkitAudioDecodedByteCount > 0)) failures.push('no audio decoded');
    if (hasVideo && !(video.getVideoPlaybackQuality().totalVideoFrames > 0)) failures.push('no video frame decoded');
  } catch (e) {
    failures.push(`element: ${e.message}${errorText() && !e.message.includes('MediaError') ? ' (' + errorText() + ')' : ''}`);
  }
  video.remove();
  return failures;
}

// Runs in the page: appends the whole file, then the file in pieces, each into a new MediaSource.
async function appendToSourceBuffer({ url, mime, duration, tolerance, chunk }) {
  if (!MediaSource.isTypeSupported(mime)) return [`MediaSource.isTypeSupported('${mime}') is false`];
  const bytes = new Uint8Array(await (await fetch(url)).arrayBuffer());
  const failures = [];
  for (const size of [bytes.length, chunk]) {
    const how = size === bytes.length ? 'whole file' : `${chunk / 1024} KiB pieces`;
    const video = document.createElement('video');
    const source = new MediaSource();
    const log = [];
    source.addEventListener('sourceended', () => log.push('sourceended'));
    video.addEventListener('error', () => log.push(`MediaError ${video.error.code}: ${video.error.message || '(no message)'}`));
    try {
      const opened = new Promise(resolve => source.addEventListener('sourceopen', resolve, { once: true }));
      video.src = URL.createObjectURL(source);
      await opened;
      const buffer = source.addSourceBuffer(mime);
      buffer.addEventListener('error', () => log.push('SourceBuffer error event'));
      for (let at = 0; at < bytes.length; at += size) {
        await new Promise((resolve, reject) => {
          const done = () => { buffer.removeEventListener('error', fail); resolve(); };
          const fail = () => { buffer.removeEventListener('updateend', done); reject(new Error(`append of bytes ${at}.. failed`)); };
          buffer.addEventListener('updateend', done, { once: true });
          buffer.addEventListener('error', fail, { once: true });
          buffer.appendBuffer(bytes.subarray(at, Math.min(at + size, bytes.length)));
        });
        if (source.readyState !== 'open') throw new Error(`MediaSource ${source.readyState} after bytes ${at}..`);
      }
      const ranges = buffer.buffered;
      const list = Array.from({ length: ranges.length }, (_, i) => `${ranges.start(i).toFixed(3)}-${ranges.end(i).toFixed(3)}`);
      if (ranges.length !== 1) failures.push(`${how}: buffered ranges [${list.join(', ')}], expected one`);
      else if (ranges.start(0) > 0.1 || Math.abs(ranges.end(0) - duration) > tolerance) {
        failures.push(`${how}: buffered ${list[0]}, expected 0-${duration} (within ${tolerance.toFixed(3)} s at the end)`);
      }
      source.endOfStream();
    } catch (e) {
      // The element's MediaError, which carries the stream parser's words, follows the failed append.
      for (let i = 0; i < 40 && !log.some(l => l.startsWith('MediaError')); i++) {
        await new Promise(resolve => setTimeout(resolve, 50));
      }
      failures.push(`${how}: ${e.message}${log.length ? ' (' + log.join('; ') + ')' : ''}`);
    }
    URL.revokeObjectURL(video.src);
  }
  // The same fault both ways is said once.
  const pieces = `${chunk / 1024} KiB pieces: `;
  if (failures.length === 2 && failures[0].startsWith('whole file: ') && failures[1] === pieces + failures[0].slice(12)) {
    return [`whole file and ${pieces}${failures[1].slice(pieces.length)}`];
  }
  return failures;
}

async function checkFile(page, base, index, file) {
  const url = `${base}/f/${index}.webm`;
  const [video, audio] = [/^video\//.test(file.mime), /vorbis|opus/.test(file.mime)];
  const element = await page.evaluate(playInElement, { url, duration: file.duration, audio, video });
  const mse = await page.evaluate(appendToSourceBuffer,
    { url, mime: file.mime, duration: file.duration, tolerance: file.tolerance, chunk: CHUNK });
  return [...element, ...mse];
}

const withTimeout = (promise, ms, what) => Promise.race([promise,
  new Promise((_, reject) => setTimeout(() => reject(new Error(`${what} took over ${ms / 1000} s`)), ms))]);

const server = await serve(manifest.files);
const base = `http://127.0.0.1:${server.address().port}`;
const browser = await chromium.launch({
  executablePath: manifest.chromium,
  headless: true,
  args: ['--no-sandbox', '--autoplay-policy=no-user-gesture-required', '--disable-gpu', '--mute-audio'],
});
let failed = 0;
try {
  const page = await browser.newPage();
  // The media log (what chrome://media-internals shows) through the DevTools protocol: the parser's reasons.
  const mediaLog = [];
  const cdp = await page.context().newCDPSession(page);
  cdp.on('Media.playerMessagesLogged', e => e.messages.forEach(m => {
    if (process.env.MEDIALOG || m.level === 'error' || m.level === 'warning') mediaLog.push(m.level + ': ' + m.message);
  }));
  cdp.on('Media.playerErrorsRaised', e => e.errors.forEach(err => mediaLog.push(`${err.errorType} ${err.code}`)));
  await cdp.send('Media.enable');
  await page.goto(base + '/');
  for (const [index, file] of manifest.files.entries()) {
    let failures;
    mediaLog.length = 0;
    try {
      failures = await withTimeout(checkFile(page, base, index, file), PER_FILE_MS, 'the check');
    } catch (e) {
      failures = [e.message];
      await page.goto(base + '/');
    }
    // The media log arrives in batches, well after the page's own events.
    if (failures.length) await new Promise(resolve => setTimeout(resolve, 1500));
    if (failures.length) failed++;
    if (failures.length && mediaLog.length) failures.push(`media log: ${[...new Set(mediaLog)].join(' | ')}`);
    console.log(`${file.name}: ${failures.length ? 'FAILED: ' + failures.join('; ') : 'ok'}`);
  }
} finally {
  await browser.close();
  server.close();
}
process.exit(failed ? 1 : 0);
