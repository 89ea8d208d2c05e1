// An S3-compatible server for tests and benchmarks, on a loopback port:
//   node --openssl-legacy-provider s3_server.js <folder> <access key> <secret key> [bucket…]
// Buckets are created at start; signatures are checked with the one key
// pair given (and no other). Prints "port <n>" once it listens, then
// serves until killed.
'use strict';

const S3rver = require('@20minutes/s3rver');
const { DUMMY_ACCOUNT } = require('@20minutes/s3rver/lib/models/account');

const [directory, accessKey, secretKey, ...buckets] = process.argv.slice(2);
if (!directory || !accessKey || !secretKey) {
  console.error('usage: s3_server.js <folder> <access key> <secret key> [bucket…]');
  process.exit(2);
}

// The server ships with a well-known key pair; only ours may sign.
DUMMY_ACCOUNT.revokeAccessKey('S3RVER');
DUMMY_ACCOUNT.createKeyPair(accessKey, secretKey);

new S3rver({
  address: '127.0.0.1',
  port: Number(process.env.S3_PORT || 0),
  directory,
  silent: true,
  vhostBuckets: false,
  configureBuckets: buckets.map((name) => ({ name })),
})
  .run()
  .then((address) => console.log(`port ${address.port}`))
  .catch((error) => {
    console.error(error.message);
    process.exit(1);
  });
