'use strict';
// Starts an emulator child process on ephemeral ports with throwaway TLS
// material, and talks to it over 127.0.0.1 with the real host names.
const { execFileSync, spawn } = require('child_process');
const fs = require('fs');
const http = require('http');
const https = require('https');
const os = require('os');
const path = require('path');

const MAIN = path.join(__dirname, '..', 'src', 'main.js');
const SANS = 'DNS:login.microsoftonline.com,DNS:*.vault.azure.net,DNS:localhost,IP:127.0.0.1,' +
  'DNS:login.chinacloudapi.cn,DNS:login.microsoftonline.us,DNS:*.vault.azure.cn,DNS:*.vault.usgovcloudapi.net,' +
  'DNS:*.managedhsm.azure.net,DNS:*.managedhsm.azure.cn,DNS:*.managedhsm.usgovcloudapi.net';
const REALM_DIR = 'C:\\ProgramData\\AzureConnectedMachineAgent\\Tokens';

function openssl(args, cwd) {
  execFileSync('openssl', args, { cwd, stdio: 'ignore' });
}

// A CA and a server certificate it signed, under dir/<stem>-*.
function makeCa(dir, stem) {
  const ec = ['-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:P-256', '-nodes'];
  openssl(['req', '-x509', ...ec, '-keyout', `${stem}-ca.key`, '-out', `${stem}-ca.crt`,
    '-days', '2', '-subj', `/CN=${stem} test CA`], dir);
  openssl(['req', ...ec, '-keyout', `${stem}.key`, '-out', `${stem}.csr`, '-subj', '/CN=emulator'], dir);
  fs.writeFileSync(path.join(dir, `${stem}.ext`), `subjectAltName=${SANS}\nbasicConstraints=CA:FALSE\n`);
  openssl(['x509', '-req', '-in', `${stem}.csr`, '-CA', `${stem}-ca.crt`, '-CAkey', `${stem}-ca.key`,
    '-CAcreateserial', '-out', `${stem}.crt`, '-days', '2', '-extfile', `${stem}.ext`], dir);
  return {
    ca: fs.readFileSync(path.join(dir, `${stem}-ca.crt`)),
    cert: path.join(dir, `${stem}.crt`),
    key: path.join(dir, `${stem}.key`),
  };
}

function waitReady(proc) {
  return new Promise((resolve, reject) => {
    let out = '';
    const timer = setTimeout(() => reject(new Error(`emulator not ready: ${out}`)), 10000);
    proc.stdout.on('data', (d) => {
      out += d;
      const m = /emulator ready (\{.*\})\n/.exec(out);
      if (m) {
        clearTimeout(timer);
        resolve(JSON.parse(m[1]));
      }
    });
    proc.on('exit', (code) => reject(new Error(`emulator exited ${code}: ${out}`)));
  });
}

async function startEmulator() {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'kestal-emu-test-'));
  const trusted = makeCa(dir, 'trusted');
  const untrusted = makeCa(dir, 'untrusted');
  const tokenDir = path.join(dir, 'arc');
  const proc = spawn(process.execPath, [MAIN,
    '--https-host', '127.0.0.1', '--https-port', '0', '--tls-cert', trusted.cert, '--tls-key', trusted.key,
    '--untrusted-port', '0', '--untrusted-cert', untrusted.cert, '--untrusted-key', untrusted.key,
    '--imds-host', '127.0.0.1', '--imds-port', '0',
    '--arc-host', '127.0.0.1', '--arc-port', '0', '--arc-token-dir', tokenDir, '--arc-realm-dir', REALM_DIR,
    '--control-port', '0'], { stdio: ['ignore', 'pipe', 'inherit'] });
  const ports = await waitReady(proc);
  return {
    ports, ca: trusted.ca, tokenDir, realmDir: REALM_DIR,
    stop() {
      proc.kill('SIGTERM');
      fs.rmSync(dir, { recursive: true, force: true });
    },
  };
}

function collect(req, body) {
  return new Promise((resolve, reject) => {
    req.on('response', (res) => {
      const chunks = [];
      res.on('data', (c) => chunks.push(c));
      // A connection closed before the announced length arrived.
      res.on('error', reject);
      res.on('end', () => {
        const text = Buffer.concat(chunks).toString('utf8');
        let json;
        try { json = JSON.parse(text); } catch (e) { json = undefined; }
        resolve({ status: res.statusCode, headers: res.headers, text, json });
      });
    });
    req.on('error', reject);
    req.end(body);
  });
}

// HTTPS to the emulator with SNI and Host set to a real Azure name.
function azure(em, name, method, urlPath, opts = {}) {
  const req = https.request({
    host: '127.0.0.1', port: opts.port || em.ports.https, method, path: urlPath,
    servername: name, ca: opts.ca || em.ca, agent: opts.agent,
    headers: Object.assign({ Host: name }, opts.headers || {}),
  });
  return collect(req, opts.body);
}

function plain(port, method, urlPath, headers = {}, agent) {
  return collect(http.request({ host: '127.0.0.1', port, method, path: urlPath, headers, agent }));
}

function ctl(em, method, urlPath, body) {
  const data = body === undefined ? undefined : JSON.stringify(body);
  return collect(http.request({
    host: '127.0.0.1', port: em.ports.control, method, path: urlPath,
    headers: data ? { 'content-type': 'application/json' } : {},
  }), data);
}

const TENANT = '3c9a4f0e-1b2d-4e5f-8a7b-6c5d4e3f2a10';
const CLIENT = 'a7d1c2b3-4e5f-4a6b-9c8d-7e6f5a4b3c21';

// Registers an app and answers a vault access token for it.
async function vaultToken(em, secret = 'app-secret') {
  await ctl(em, 'POST', '/apps', { tenant: TENANT, clientId: CLIENT, secret });
  const body = `grant_type=client_credentials&client_id=${CLIENT}&client_secret=${encodeURIComponent(secret)}` +
    '&resource=https%3A%2F%2Fvault.azure.net';
  const r = await azure(em, 'login.microsoftonline.com', 'POST', `/${TENANT}/oauth2/token`, {
    body, headers: { 'Content-Type': 'application/x-www-form-urlencoded' },
  });
  return r.json.access_token;
}

// A caller of one vault: call(method, path, body?, headers?) with the token.
function vaultCaller(em, host, token) {
  return (method, urlPath, body, headers = {}) => azure(em, host, method, urlPath, {
    headers: Object.assign({ Authorization: `Bearer ${token}` },
      body === undefined ? {} : { 'Content-Type': 'application/json' }, headers),
    body: body === undefined ? undefined : typeof body === 'string' ? body : JSON.stringify(body),
  });
}

function decodeJwtPart(token, i) {
  return JSON.parse(Buffer.from(token.split('.')[i].replace(/-/g, '+').replace(/_/g, '/'), 'base64'));
}

module.exports = { startEmulator, azure, plain, ctl, vaultToken, vaultCaller, decodeJwtPart, TENANT, CLIENT };
