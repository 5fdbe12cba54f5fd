#!/usr/bin/env python3
"""Writes the fuzz targets' seed corpora into fuzz/corpus/<target>/: a handful of small,
valid inputs each, in the formats the targets document at their top. The binary formats (the
key-value record, the media file) follow kits/common/kv_record.h and media_entry.h.

    python3 fuzz/make_seeds.py        (needs python3-cryptography for the media seeds)
"""
import os
import struct

from cryptography.hazmat.primitives import padding
from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes

HERE = os.path.dirname(os.path.abspath(__file__))
MEDIA_KEY = b"0123456789abcdef"  # the key media_parse_fuzz decrypts with
MEDIA_IV = bytes([0x5C, 0x1E, 0xA7, 0x33, 0x90, 0xD2, 0x4B, 0x68,
                  0xF1, 0x0A, 0x87, 0xC5, 0x26, 0xE9, 0x7D, 0xB4])
NOON = 1800000000


def write(target, name, data):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data.encode() if isinstance(data, str) else data)


def fnv1a(data):
    h = 2166136261
    for b in data:
        h = ((h ^ b) * 16777619) & 0xFFFFFFFF
    return h


def kv_record(fields):
    body = b"".join(struct.pack("<H", len(k)) + k + struct.pack("<BH", t, len(v)) + v
                    for k, t, v in fields)
    total = 12 + len(body) + 4
    head = b"VKV1" + struct.pack("<II", total, len(fields)) + body
    return head + struct.pack("<I", fnv1a(head))


def encrypt(plain):
    padder = padding.PKCS7(128).padder()
    data = padder.update(plain) + padder.finalize()
    enc = Cipher(algorithms.AES(MEDIA_KEY), modes.CBC(MEDIA_IV)).encryptor()
    return enc.update(data) + enc.finalize()


def media_entry(kind, payload, timestamp, pts):
    stored = encrypt(payload) if kind in (1, 3) else payload
    return struct.pack("<IIQQ", kind, len(stored), timestamp, pts) + stored


def mqtt_seeds():
    # State byte: bit 0 protocol (1: order change), bit 1 inited, bit 2 enabled, bits 3-4
    # store mode, bit 5 oversized snapshot, bit 6 failing config fetch.
    event = 0x02 | 0x04 | (1 << 3)
    trigger = '{"data":{"action":"%s","duration":%d,"ext":{"user":"u1"}}}'
    write("mqtt_commands_fuzz", "trigger-record", bytes([event]) + (trigger % ("record", 20)).encode())
    write("mqtt_commands_fuzz", "trigger-pic", bytes([event]) + (trigger % ("pic", 0)).encode())
    write("mqtt_commands_fuzz", "trigger-pic-v", bytes([event]) + (trigger % ("pic_v", 1800)).encode())
    write("mqtt_commands_fuzz", "trigger-big-snapshot",
          bytes([event | 0x20]) + (trigger % ("pic_v", 30)).encode())
    order = '{"data":{"action":"%s","storeMode":"%s"}}'
    write("mqtt_commands_fuzz", "order-alltime", bytes([event | 1]) + (order % ("store", "alltime")).encode())
    write("mqtt_commands_fuzz", "order-alltime-fetch-fails",
          bytes([event | 1 | 0x40]) + (order % ("store", "alltime")).encode())
    write("mqtt_commands_fuzz", "order-abort", bytes([0x02 | 0x04 | (2 << 3) | 1]) + (order % ("abort", "event")).encode())


def cloud_answer_seeds():
    # Byte 0: 0 storage config, 1 restriction, 2 API call; byte 1: status (0: 200, 5: 410).
    write("cloud_answers_fuzz", "config",
          b"\x00\x00" + b'{"cloudType":"local","addressPrefix":"media","addressSuffix":"127.0.0.1:8080",'
          b'"storeMode":"event","eventDuration":30,"sliceDuration":10,"silenceInterval":60,"countLeft":20}')
    write("cloud_answers_fuzz", "config-expired", b"\x00\x05" + b'{"error":"order expired"}')
    write("cloud_answers_fuzz", "restriction", b"\x01\x00" + b'{"eventDuration":300,"sliceDuration":60}')
    write("cloud_answers_fuzz", "api-key", b"\x02\x00" +
          b'{"success":true,"result":{"needUpdate":true,"encryptKey":"AbCdEfGh12345678"}}')
    write("cloud_answers_fuzz", "api-refused", b"\x02\x00" + b'{"success":false,"code":"E42","msg":"unknown"}')


def kv_seeds():
    md5 = b"0123456789abcdef0123456789abcdef"
    write("kv_record_fuzz", "key-record", kv_record([
        (b"md5_len", 4, struct.pack("<I", 32)), (b"encrypt_key_len", 4, struct.pack("<I", 16)),
        (b"md5_value", 7, md5), (b"encrypt_key_value", 7, b"AbCdEfGh12345678")]))
    write("kv_record_fuzz", "slice-duration", kv_record([(b"slice_duration", 4, struct.pack("<I", 10))]))
    write("kv_record_fuzz", "empty", kv_record([]))
    write("kv_record_fuzz", "wrong-type", kv_record([(b"md5_len", 7, b"32")]))


def media_seeds():
    key, p, audio = 1, 0, 3
    write("media_parse_fuzz", "gop", media_entry(key, b"\x00\x00\x00\x01\x65" + b"K" * 40, 1000, 1000)
          + media_entry(p, b"\x00\x00\x00\x01\x41" + b"P" * 20, 1040, 1040)
          + media_entry(audio, b"A" * 32, 1041, 1041))
    write("media_parse_fuzz", "key-only", media_entry(key, b"\x00\x00\x00\x01\x65", 5, 5))
    write("media_parse_fuzz", "audio-first", media_entry(audio, b"A" * 16, 0, 0)
          + media_entry(key, b"K" * 17, 0, 0))


def service_seeds():
    dev = "x-vexo-device: cam1\n"
    write("service_request_fuzz", "config", "GET /v1/devices/cam1/storage/config\n" + dev + "\n")
    write("service_request_fuzz", "restriction", "GET /v1/devices/cam1/storage/restriction\n" + dev + "\n")
    start = ('{"startTime":%d,"payloadInfo":"{\\"v\\":1}","mtu":10,"enKeyMd5":"0000"}' % NOON)
    write("service_request_fuzz", "start",
          "POST /v1/api/vexo.device.ipc.media.storage.notify.upload.start?v=1.0\n" + dev
          + "content-type: application/json\n\n" + start)
    write("service_request_fuzz", "stop",
          "POST /v1/api/vexo.device.ipc.media.storage.notify.upload.stop?v=1.0\n" + dev + "\n"
          + '{"startTime":%d,"endTime":%d}' % (NOON, NOON + 30))
    write("service_request_fuzz", "event",
          "POST /v1/api/vexo.device.ipc.media.storage.report.event?v=1.0\n" + dev + "\n"
          + '{"v":2,"startTime":%d,"endTime":%d,"eventType":2}' % (NOON, NOON + 30))
    write("service_request_fuzz", "upload",
          ("PUT /v1/devices/cam1/media/%d_0000.media\n" % NOON + dev + "\n").encode()
          + media_entry(1, b"K" * 20, 0, 0))
    write("service_request_fuzz", "alarm", "POST /v1/devices/cam1/alarms\n" + dev + "\n"
          + '{"time":%d,"withPicture":1,"extra":"x","picture":"/9j/2Q=="}' % NOON)
    write("service_request_fuzz", "gap", "POST /v1/devices/cam1/gaps\n" + dev + "x-vexo-replay: 1\n\n"
          + '{"from":%d,"to":%d,"reason":"spool full","bytes":1234}' % (NOON - 300, NOON))
    write("service_request_fuzz", "start-replayed",
          "POST /v1/api/vexo.device.ipc.media.storage.notify.upload.start?v=1.0\n" + dev
          + "x-vexo-replay: 1\n\n" + start.replace('"0000"', '"0123456789abcdef0123456789abcdef"'))


def json_seeds():
    write("service_json_fuzz", "start", '{"startTime":%d,"payloadInfo":"{\\"v\\":1}","mtu":10,'
          '"enKeyMd5":"0000"}' % NOON)
    write("service_json_fuzz", "numbers", '{"a":4294967295,"b":-2147483648,"c":9223372036854775807,'
          '"d":1.5,"e":-0,"f":1e3,"g":true,"h":1,"i":null}')
    write("service_json_fuzz", "nested", '[{"x":[1,{"y":"\\u00e9\\n"}]},"t",false]')
    write("service_json_fuzz", "text", '"caf\\u00e9 \\ud83d\\ude00"')


if __name__ == "__main__":
    mqtt_seeds()
    cloud_answer_seeds()
    kv_seeds()
    media_seeds()
    service_seeds()
    json_seeds()
