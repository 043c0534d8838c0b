"""As much of S3 as looking after a bucket needs: requests with Signature Version 4 over one connection per thread."""
import datetime
import hashlib
import hmac
import http.client
import os
import re
import threading
import urllib.parse
from concurrent.futures import ThreadPoolExecutor
from html import unescape

from comparison.processes import Failure

UNSIGNED = "UNSIGNED-PAYLOAD"
REGION = "us-east-1"


def quoted(text, safe=""):
    return urllib.parse.quote(text, safe=safe)


def keyed(key, text):
    return hmac.new(key, text.encode(), hashlib.sha256).digest()


class Bucket:
    def __init__(self, host, port, key, secret, name):
        self.host, self.port, self.key, self.secret, self.name = host, port, key, secret, name
        self.local = threading.local()

    def signature(self, method, path, query, headers, stamp, payload):
        names = ";".join(sorted(headers))
        canonical = "\n".join([method, path, query, *(f"{n}:{headers[n]}" for n in sorted(headers)), "", names, payload])
        scope = f"{stamp[:8]}/{REGION}/s3/aws4_request"
        text = "\n".join(["AWS4-HMAC-SHA256", stamp, scope, hashlib.sha256(canonical.encode()).hexdigest()])
        key = ("AWS4" + self.secret).encode()
        for part in (stamp[:8], REGION, "s3", "aws4_request"):
            key = keyed(key, part)
        return scope, names, keyed(key, text).hex()

    def path(self, key):
        return f"/{self.name}" + (f"/{quoted(key, '/')}" if key else "")

    def request(self, method, key="", query=None, body=b"", sink=None):
        """Status, headers and body; with a sink, the body goes there piece by piece. What is sent may be an open file."""
        stamp = datetime.datetime.utcnow().strftime("%Y%m%dT%H%M%SZ")
        line = "&".join(f"{quoted(k)}={quoted(v)}" for k, v in sorted((query or {}).items()))
        headers = {"host": f"{self.host}:{self.port}", "x-amz-content-sha256": UNSIGNED, "x-amz-date": stamp}
        scope, names, signature = self.signature(method, self.path(key), line, headers, stamp, UNSIGNED)
        headers["Authorization"] = (f"AWS4-HMAC-SHA256 Credential={self.key}/{scope}, SignedHeaders={names}, "
                                    f"Signature={signature}")
        target = self.path(key) + (f"?{line}" if line else "")
        length = len(body) if isinstance(body, bytes) else os.fstat(body.fileno()).st_size
        headers["Content-Length"] = str(length)  # of a file, or it would be sent in a form that S3 does not take
        for attempt in (1, 2):
            connection = getattr(self.local, "connection", None)
            if connection is None:
                connection = self.local.connection = http.client.HTTPConnection(self.host, self.port, timeout=120)
            try:
                connection.request(method, target, body, headers)
                answer = connection.getresponse()
                return answer.status, answer.headers, self.receive(answer, sink)
            except (OSError, http.client.HTTPException) as problem:
                connection.close()
                self.local.connection = None
                # The server ends idle connections when it likes; a body that was read cannot be sent again.
                if attempt == 2 or not isinstance(body, bytes):
                    raise Failure(f"the S3 server: {problem}") from problem

    @staticmethod
    def receive(answer, sink):
        if sink is None:
            return answer.read()
        while piece := answer.read(1 << 20):
            sink(piece)
        return b""

    def checked(self, method, key="", **rest):
        status, headers, body = self.request(method, key, **rest)
        if status >= 300:
            raise Failure(f"the S3 server answers {status} to {method} {key}")
        return headers, body

    def create(self):
        self.checked("PUT")

    def put(self, key, body):
        self.checked("PUT", key, body=body)

    def size(self, key):
        status, headers, _ = self.request("HEAD", key)
        return int(headers["Content-Length"]) if status == 200 else None

    def list(self, prefix):
        """Size of each key that begins so."""
        found, after = {}, None
        while True:
            query = {"list-type": "2", "prefix": prefix} | ({"continuation-token": after} if after else {})
            text = self.checked("GET", query=query)[1].decode()
            for entry in re.findall(r"<Contents>(.*?)</Contents>", text, re.S):
                key = unescape(re.search(r"<Key>(.*?)</Key>", entry, re.S).group(1))
                found[key] = int(re.search(r"<Size>(\d+)</Size>", entry).group(1))
            after = re.search(r"<NextContinuationToken>(.*?)</NextContinuationToken>", text)
            if not after:
                return found
            after = unescape(after.group(1))

    def each(self, work, items):
        with ThreadPoolExecutor(8) as threads:
            list(threads.map(work, items))

    def presigned(self, method, key, host, port):
        """An URL that says all by itself, for a client that knows nothing of S3."""
        stamp = datetime.datetime.utcnow().strftime("%Y%m%dT%H%M%SZ")
        query = {"X-Amz-Algorithm": "AWS4-HMAC-SHA256", "X-Amz-Date": stamp, "X-Amz-Expires": "3600",
                 "X-Amz-Credential": f"{self.key}/{stamp[:8]}/{REGION}/s3/aws4_request", "X-Amz-SignedHeaders": "host"}
        line = "&".join(f"{quoted(k)}={quoted(v)}" for k, v in sorted(query.items()))
        _, _, signature = self.signature(method, self.path(key), line, {"host": f"{host}:{port}"}, stamp, UNSIGNED)
        return f"http://{host}:{port}{self.path(key)}?{line}&X-Amz-Signature={signature}"
