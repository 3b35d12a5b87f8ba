// Cameras of OrvikService and their SCSI commands. index.d.ts is the manual.
'use strict';

const { OrvikError } = require('./lib/error');
const { PersistentClient } = require('./lib/persistent_client');
const scsi = require('./lib/scsi');
const { native, limits } = require('./lib/native');

module.exports = {
    OrvikError,
    PersistentClient,
    inquiryCdb: scsi.inquiryCdb,
    testUnitReadyCdb: scsi.testUnitReadyCdb,
    readCapacityCdb: scsi.readCapacityCdb,
    requestSenseCdb: scsi.requestSenseCdb,
    read6Cdb: scsi.read6Cdb,
    write6Cdb: scsi.write6Cdb,
    decodeInquiry: scsi.decodeInquiry,
    decodeCapacity: scsi.decodeCapacity,
    decodeSense: scsi.decodeSense,
    CDB_LIMIT: limits.cdb,
    TRANSFER_IN_LIMIT: limits.transferIn,
    TRANSFER_TIMEOUT: limits.transferTimeout,
    version: native.version(),
};
