'use strict';
// A throwaway self-signed server certificate for standalone runs, made
// with the openssl command when no --tls-cert/--tls-key is given.
const { execFileSync } = require('child_process');
const fs = require('fs');
const path = require('path');

const SANS = 'DNS:login.microsoftonline.com,DNS:login.windows.net,DNS:*.vault.azure.net,DNS:localhost,IP:127.0.0.1';

function selfSigned(dir, stem) {
  const key = path.join(dir, `${stem}.key`);
  const cert = path.join(dir, `${stem}.crt`);
  execFileSync('openssl', [
    'req', '-x509', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:P-256', '-nodes',
    '-keyout', key, '-out', cert, '-days', '30', '-subj', `/CN=kestal emulator ${stem}`,
    '-addext', `subjectAltName=${SANS}`,
  ], { stdio: 'ignore' });
  return { key: fs.readFileSync(key), cert: fs.readFileSync(cert) };
}

module.exports = { selfSigned };
