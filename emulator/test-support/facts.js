'use strict';
// The recorded sessions of the real service in the shared facts folder,
// read into one shape whatever the recorder: interactions
// {method, url, path, query, requestBody, status, responseBody, headers}.
// requestBody is undefined where the recorder kept none; responseBody is
// parsed JSON, or the text when it is not JSON ('' for none).
const fs = require('fs');
const path = require('path');

const FACTS = process.env.KESTAL_AZURE_FACTS ||
  path.resolve(__dirname, '..', '..', '..', 'shared', 'azure-facts');
const RECORDINGS = path.join(FACTS, 'recordings');

function requireFacts() {
  if (!fs.existsSync(RECORDINGS)) {
    throw new Error(`the recorded sessions are missing: ${RECORDINGS} (set KESTAL_AZURE_FACTS to the azure-facts folder)`);
  }
}

function parseBody(text) {
  if (text === undefined || text === null) return '';
  if (typeof text !== 'string') return text;
  try {
    return JSON.parse(text);
  } catch (e) {
    return text;
  }
}

function lowerHeaders(h) {
  const out = {};
  for (const [k, v] of Object.entries(h || {})) out[k.toLowerCase()] = Array.isArray(v) ? v.join(' ') : v;
  return out;
}

function split(url) {
  const u = new URL(url.replace('.netkeys/', '.net/keys/'));
  return { host: u.host, path: u.pathname, query: u.search };
}

function fromCpp(doc) {
  return doc.networkCallRecords.map((r) => {
    const resp = r.Response;
    const headers = lowerHeaders(resp);
    return Object.assign(split(r.Url), {
      method: r.Method, url: r.Url, requestBody: undefined, status: Number(resp.STATUS_CODE),
      responseBody: parseBody(resp.BODY), headers,
    });
  });
}

function fromJava(doc) {
  return doc.networkCallRecords.map((r) => {
    const resp = r.Response;
    return Object.assign(split(r.Uri), {
      method: r.Method, url: r.Uri, requestBody: undefined, status: Number(resp.StatusCode),
      responseBody: parseBody(resp.Body), headers: lowerHeaders(resp),
    });
  });
}

function fromDotnet(doc) {
  return doc.Entries.map((e) => Object.assign(split(e.RequestUri), {
    method: e.RequestMethod, url: e.RequestUri,
    requestBody: e.RequestBody === null || e.RequestBody === undefined ? null : JSON.stringify(e.RequestBody),
    status: e.StatusCode, responseBody: e.ResponseBody === undefined ? '' : e.ResponseBody,
    headers: lowerHeaders(e.ResponseHeaders),
  }));
}

// The python recordings are vcrpy YAML; only the few constructs they use
// are read: "interactions:" items with request/response maps, quoted and
// plain scalars, and block lists of header values.
function fromYaml(text) {
  const lines = text.split('\n');
  const interactions = [];
  let cur = null;
  let section = null;
  let headerName = null;
  let inHeaders = false;
  const scalar = (raw) => {
    const t = raw.trim();
    if (t.startsWith("'")) return t.slice(1, -1).replace(/''/g, "'");
    if (t.startsWith('"')) return JSON.parse(t);
    if (t === 'null' || t === '') return null;
    if (/^\d+$/.test(t)) return Number(t);
    return t;
  };
  for (let i = 0; i < lines.length; i++) {
    const line = lines[i];
    if (/^- request:/.test(line)) {
      cur = { request: { headers: {} }, response: { headers: {}, status: {} } };
      interactions.push(cur);
      section = 'request';
      inHeaders = false;
      continue;
    }
    if (/^ {2}response:/.test(line)) {
      section = 'response';
      inHeaders = false;
      continue;
    }
    if (!cur) continue;
    let m;
    if ((m = /^ {4}(body|method|uri):\s?(.*)$/.exec(line)) && section === 'request') {
      let value = m[2];
      // A long quoted scalar can continue on following lines.
      while ((value.startsWith("'") && !/[^']'$|^''$/.test(value.trim())) || (value.startsWith('"') && !/[^\\]"$/.test(value.trim()))) {
        i++;
        value += ` ${lines[i].trim()}`;
      }
      cur.request[m[1]] = scalar(value);
      inHeaders = false;
    } else if (/^ {4}headers:/.test(line)) {
      inHeaders = true;
    } else if (inHeaders && (m = /^ {6}([^:]+):\s*$/.exec(line))) {
      headerName = m[1].toLowerCase();
      cur[section].headers[headerName] = [];
    } else if (inHeaders && (m = /^ {6}- (.*)$/.exec(line))) {
      cur[section].headers[headerName].push(scalar(m[1]));
    } else if (inHeaders && (m = /^ {8}(\S.*)$/.exec(line))) {
      const list = cur[section].headers[headerName];
      list[list.length - 1] = `${list[list.length - 1]} ${m[1]}`;
    } else if (section === 'response' && (m = /^ {6}string:\s?(.*)$/.exec(line))) {
      let value = m[1];
      while ((value.startsWith("'") && !/[^']'$|^''$/.test(value.trim())) || (value.startsWith('"') && !/[^\\]"$/.test(value.trim()))) {
        i++;
        value += ` ${lines[i].trim()}`;
      }
      cur.response.body = scalar(value);
    } else if (section === 'response' && (m = /^ {6}code:\s*(\d+)/.exec(line))) {
      cur.response.status = Number(m[1]);
    } else if (/^ {4}(body|status):/.test(line)) {
      inHeaders = false;
    }
  }
  return interactions.map((it) => Object.assign(split(it.request.uri), {
    method: it.request.method, url: it.request.uri,
    requestBody: it.request.body === null ? null : String(it.request.body),
    status: it.response.status, responseBody: parseBody(it.response.body),
    headers: Object.fromEntries(Object.entries(it.response.headers).map(([k, v]) => [k, v.join(' ')])),
  }));
}

function load(relative) {
  const file = path.join(RECORDINGS, relative);
  const text = fs.readFileSync(file, 'utf8');
  if (relative.startsWith('python/')) return fromYaml(text);
  const doc = JSON.parse(text);
  if (relative.startsWith('dotnet/')) return fromDotnet(doc);
  if (relative.startsWith('java/')) return fromJava(doc);
  return fromCpp(doc);
}

function listRecordings() {
  requireFacts();
  const out = [];
  for (const dir of fs.readdirSync(RECORDINGS).sort()) {
    const full = path.join(RECORDINGS, dir);
    if (!fs.statSync(full).isDirectory()) continue;
    for (const f of fs.readdirSync(full).sort()) out.push(`${dir}/${f}`);
  }
  return out;
}

module.exports = { FACTS, RECORDINGS, requireFacts, load, listRecordings };
