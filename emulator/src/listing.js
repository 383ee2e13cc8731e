'use strict';
// Paged listings of a vault collection: maxresults, the continuation token
// and the absolute nextLink, shared by keys, certificates and deleted objects.
const http = require('./vaulthttp');
const paging = require('./paging');

const MAX_PAGE = 25;

function readMaxResults(ctx) {
  const raw = ctx.params.maxresults;
  if (raw === undefined) return { size: MAX_PAGE };
  const n = /^\d+$/.test(raw) ? Number(raw) : NaN;
  if (!(n >= 1 && n <= MAX_PAGE)) {
    http.badParameter(ctx, `Invalid value '${raw}' for maxresults. It must be between 1 and ${MAX_PAGE}.`);
    return null;
  }
  return { size: n, raw };
}

// entries: sorted {upper, record, hidden?}; path: the collection path for
// nextLink ("/keys"); prefix: the marker prefix; toItem(record) -> JSON.
function list(ctx, { entries, path, prefix, toItem }) {
  const max = readMaxResults(ctx);
  if (!max) return;
  let at = { upperName: null, page: 0 };
  if (ctx.params.$skiptoken !== undefined) {
    at = paging.decode(ctx.params.$skiptoken, prefix);
    if (!at) {
      http.badParameter(ctx, 'The skip token is not valid.');
      return;
    }
  }
  const page = paging.cut(entries, at, ctx.vault.pageSizes, max.size, prefix);
  let nextLink = null;
  if (page.next) {
    nextLink = `${ctx.base}:443${path}?api-version=${encodeURIComponent(ctx.apiVersion)}&$skiptoken=${page.next}` +
      (max.raw !== undefined ? `&maxresults=${max.raw}` : '');
  }
  http.answer(ctx, 200, { value: page.items.map((e) => toItem(e.record)), nextLink });
}

module.exports = { list, MAX_PAGE };
