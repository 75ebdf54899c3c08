#!/usr/bin/env node
// Asks tavlo: prints the body of the answer; when it is an error, its status and reason on standard
// error, with exit status 1. Without an answer it says why, with exit status 2.
//
// Usage: tavlo.mjs METHOD PATH [BODY]
// In the environment:
//   TAVLO_URL          http://ROUTER:60278 or https://ROUTER:60279
//   TAVLO_KEY          the pairing key; only for https
//   TAVLO_CERTIFICATE  the file with the router's certificate; only for https

import { readFileSync } from 'node:fs';
import http from 'node:http';
import https from 'node:https';

// The daemon itself gives up after 61 seconds.
const timeout = 70000;

function setting(name) {
  const value = process.env[name];
  if (!value) throw new Error(`${name} is not set`);
  return value;
}

function ask(method, path, body = '') {
  const url = setting('TAVLO_URL');
  const secure = url.startsWith('https:');
  const { hostname, port } = new URL(url);
  const options = {
    hostname, port, method, path, timeout, headers: { 'Content-Length': Buffer.byteLength(body) },
  };
  if (secure) {
    options.ca = readFileSync(setting('TAVLO_CERTIFICATE'));
    options.headers.PairingKey = setting('TAVLO_KEY');
  }
  return new Promise((resolve, reject) => {
    const request = (secure ? https : http).request(options, (answer) => {
      const parts = [];
      answer.on('data', (part) => parts.push(part));
      answer.on('error', reject);
      answer.on('end', () => resolve({
        status: answer.statusCode,
        reason: answer.statusMessage,
        body: Buffer.concat(parts),
      }));
    });
    request.on('timeout', () => request.destroy(new Error('no answer')));
    request.on('error', reject);
    request.end(body);
  });
}

const [method, path, body, ...more] = process.argv.slice(2);
if (path === undefined || more.length > 0) {
  console.error('usage: tavlo.mjs METHOD PATH [BODY]');
  process.exit(2);
}
try {
  const answer = await ask(method, path, body);
  if (answer.status >= 200 && answer.status < 300) {
    process.stdout.write(answer.body);
  } else {
    console.error(`${answer.status} ${answer.reason}`);
    process.exitCode = 1;
  }
} catch (error) {
  console.error(error.message || error.code);
  process.exitCode = 2;
}
