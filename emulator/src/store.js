'use strict';
// The one place that holds the emulator's state. Service modules read and
// change it; the control API resets and seeds it.
const fs = require('fs');

const DEFAULT_TENANT = '5f0c3b9e-7a41-4d2c-9e6b-1d8a2f4c6e90';

function freshState() {
  return {
    apps: new Map(),          // lower-cased client id -> {tenant, clientId, secret, oid}
    identity: null,           // {oid, clientId, tenant} seen by IMDS and Arc
    settings: {
      tokenLifetime: 3599,
      defaultTenant: DEFAULT_TENANT,
      region: 'eastus',
      serviceVersion: '1.9.1129.1',
      closeConnections: false,
    },
    tokens: new Map(),        // access token text -> claims
    vaults: new Map(),        // lower-cased vault name -> vault record
    scripts: [],              // scripted answers, see script.js
    requests: [],             // request log, see requestlog.js
    arcKeys: new Map(),       // secret -> {file, used}
    backups: new Map(),       // key backup blob -> the key record it saved
  };
}

class Store {
  constructor() {
    this.state = freshState();
  }

  reset() {
    for (const k of this.state.arcKeys.values()) {
      try { fs.unlinkSync(k.file); } catch (e) { /* already gone */ }
    }
    this.state = freshState();
  }

  get settings() { return this.state.settings; }

  // Vaults spring into existence on first use with the default settings.
  vault(name) {
    const key = name.toLowerCase();
    let v = this.state.vaults.get(key);
    if (!v) {
      v = {
        name: key,
        tier: 'standard',
        pageSizes: [],
        tenant: null,
        recoverableDays: 90,
        deleteWindowRequests: 0,
        deleteWindowMs: 0,
        certificatePolls: 0,
        latencyMs: 0,
        keys: new Map(),            // lower-cased name -> {name, versions}
        deletedKeys: new Map(),     // lower-cased name -> deleted entry, see deleted.js
        certificates: new Map(),    // lower-cased name -> certificate record, see certificates.js
        deletedCertificates: new Map(),
      };
      this.state.vaults.set(key, v);
    }
    return v;
  }

  vaultTenant(vault) {
    return vault.tenant || this.settings.defaultTenant;
  }

  knownTenant(tenant) {
    const t = tenant.toLowerCase();
    for (const app of this.state.apps.values()) {
      if (app.tenant.toLowerCase() === t) return true;
    }
    return false;
  }
}

module.exports = { Store, DEFAULT_TENANT };
