'use strict';
// Soft-deleted keys and certificates: /deletedkeys and /deletedcertificates,
// with lookup, listing, recovery and purge.
//
// A deletion is not finished at once on the service: for a while the
// deleted object cannot be read, purged or recovered (lookups answer 404,
// purge and recovery 409 ObjectIsBeingDeleted). Here that window is a
// per-vault setting: the first `deleteWindowRequests` requests that look
// at the deleted name, and every such request in the first
// `deleteWindowMs` milliseconds, see the deletion still in progress.
const { nowSeconds } = require('./util');
const http = require('./vaulthttp');
const keystore = require('./keystore');
const certstore = require('./certstore');
const listing = require('./listing');

const KINDS = {
  key: { noun: 'Key', map: 'deletedKeys', path: '/deletedkeys', prefix: 'deletedkey/' },
  certificate: { noun: 'Certificate', map: 'deletedCertificates', path: '/deletedcertificates', prefix: 'deletedcertificate/' },
};

// Moves a record into the deleted collection; extra holds what goes with
// it (a certificate's key record).
function softDelete(vault, kind, record, extra = {}) {
  const now = nowSeconds();
  const entry = Object.assign({
    kind,
    record,
    deletedDate: now,
    scheduledPurgeDate: now + vault.recoverableDays * 86400,
    deletedAtMs: Date.now(),
    windowLeft: vault.deleteWindowRequests,
    windowMs: vault.deleteWindowMs,
  }, extra);
  vault[KINDS[kind].map].set(record.name.toLowerCase(), entry);
  return entry;
}

function busy(entry) {
  return entry.windowLeft > 0 || Date.now() - entry.deletedAtMs < entry.windowMs;
}

// One request looking at the deleted object: answers whether it still sees
// the deletion in progress, and counts it against the window.
function stillDeleting(entry) {
  const answer = busy(entry);
  if (entry.windowLeft > 0) entry.windowLeft -= 1;
  return answer;
}

function entryFor(vault, kind, name) {
  return vault[KINDS[kind].map].get(name.toLowerCase()) || null;
}

// Create and import refuse a name that is soft-deleted (as a key or as a
// certificate, whose key goes with it). Answers true after refusing.
function refuseDeletedName(ctx, kind, name) {
  const entry = entryFor(ctx.vault, 'key', name) || entryFor(ctx.vault, 'certificate', name);
  if (!entry) return false;
  stillDeleting(entry);
  const k = KINDS[kind];
  http.conflict(ctx, `${k.noun} ${name} is currently in a deleted but recoverable state, and its name cannot be ` +
    `reused; in this state, the ${kind} can only be recovered or purged.`, 'ObjectIsDeletedButRecoverable');
  return true;
}

function beingDeleted(ctx, kind) {
  http.conflict(ctx, `${KINDS[kind].noun} is currently being deleted.`, 'ObjectIsBeingDeleted');
}

function deletedBundle(ctx, entry) {
  return entry.kind === 'key'
    ? keystore.deletedBundle(ctx.base, ctx.vault, entry, ctx.apiVersion)
    : certstore.deletedBundle(ctx.base, ctx.vault, entry, ctx.apiVersion);
}

function listDeleted(ctx, kind) {
  const k = KINDS[kind];
  const entries = Array.from(ctx.vault[k.map].values()).filter((e) => !busy(e));
  const sorted = keystore.byUpperName(entries.map((e) => e.record))
    .map((s) => ({ upper: s.upper, record: entries.find((e) => e.record === s.record) }));
  const toItem = kind === 'key'
    ? (entry) => keystore.deletedItem(ctx.base, ctx.vault, entry, ctx.apiVersion)
    : (entry) => certstore.deletedItem(ctx.base, ctx.vault, entry, ctx.apiVersion);
  listing.list(ctx, { entries: sorted, path: k.path, prefix: k.prefix, toItem });
}

function getDeleted(ctx, kind, name) {
  const entry = entryFor(ctx.vault, kind, name);
  if (!entry || stillDeleting(entry)) {
    http.deletedNotFound(ctx, kind, name);
    return;
  }
  http.answer(ctx, 200, deletedBundle(ctx, entry));
}

// The deleted entry that purge and recover may act on, or null once the refusal is answered.
function settledEntry(ctx, kind, name) {
  const entry = entryFor(ctx.vault, kind, name);
  if (!entry) {
    http.notFound(ctx, kind, name);
    return null;
  }
  if (stillDeleting(entry)) {
    beingDeleted(ctx, kind);
    return null;
  }
  return entry;
}

function purge(ctx, kind, name) {
  if (!settledEntry(ctx, kind, name)) return;
  ctx.vault[KINDS[kind].map].delete(name.toLowerCase());
  http.answer(ctx, 204, null);
}

function recover(ctx, kind, name) {
  const entry = settledEntry(ctx, kind, name);
  if (!entry) return;
  const id = name.toLowerCase();
  ctx.vault[KINDS[kind].map].delete(id);
  if (kind === 'key') {
    ctx.vault.keys.set(id, entry.record);
    const v = keystore.findVersion(entry.record, null);
    http.answer(ctx, 200, keystore.bundle(ctx.base, ctx.vault, entry.record, v, ctx.apiVersion));
    return;
  }
  ctx.vault.certificates.set(id, entry.record);
  if (entry.keyRecord) ctx.vault.keys.set(id, entry.keyRecord);
  http.answer(ctx, 200, certstore.bundle(ctx.base, ctx.vault, entry.record, certstore.latest(entry.record), ctx.apiVersion));
}

// segments: the path after /deletedkeys or /deletedcertificates.
function route(ctx, kind, rest) {
  const method = ctx.req.method;
  if (rest.length === 0 && method === 'GET') return listDeleted(ctx, kind);
  const name = rest[0];
  if (rest.length >= 1 && !keystore.validName(name)) {
    return http.badParameter(ctx, `The request URI contains an invalid name: ${name}`);
  }
  if (rest.length === 1 && method === 'GET') return getDeleted(ctx, kind, name);
  if (rest.length === 1 && method === 'DELETE') return purge(ctx, kind, name);
  if (rest.length === 2 && rest[1].toLowerCase() === 'recover' && method === 'POST') return recover(ctx, kind, name);
  return http.answer(ctx, 405, http.kvError('BadParameter', `Operation ${method} ${ctx.path} is not supported.`));
}

module.exports = { softDelete, refuseDeletedName, entryFor, route, busy };
