"""Ceph's S3 gateway, with a cluster of one monitor and one store in memory behind it."""
import os
import re
import shutil
import uuid

from comparison.processes import Failure, free_port, run, start, stop, wait_for_port
from comparison.s3 import Bucket
from comparison.servers import Server
from comparison.stores import BucketStore

PROGRAMS = ("ceph-mon", "ceph-osd", "radosgw", "ceph", "radosgw-admin", "monmaptool")


class GatewayStore(BucketStore):
    def fill(self, folder, sizes):
        super().fill(folder, sizes)
        # For the first upload in parts of all the gateway makes a pool, which takes a second: in nobody's turn.
        _, answer = self.bucket.checked("POST", "scratch/parts", query={"uploads": ""})
        upload = re.search(r"<UploadId>(.*?)</UploadId>", answer.decode()).group(1)
        self.bucket.checked("DELETE", "scratch/parts", query={"uploadId": upload})


class CephGateway(Server):
    protocol = "s3"
    title = "Ceph radosgw"
    user, password, bucket_name = "AKIABENCHBENCHBE", "secretsecretsecretsecret", "bench"
    path = "/bench"

    def start(self):
        if not all(shutil.which(name) for name in PROGRAMS):
            raise Failure("Ceph's gateway is not installed (OMBRA_FULL=1 scripts/dependencies test)")
        self.processes = []
        conf = self.configure()
        run(["ceph-mon", "--mkfs", "-i", "a", "--monmap", f"{self.home}/monmap", "-c", conf])
        self.add(["ceph-mon", "-f", "-i", "a", "-c", conf], self.monitor_port)
        run(["ceph", "-c", conf, "--connect-timeout", "60", "osd", "create"])
        run(["ceph-osd", "--mkfs", "-i", "0", "-c", conf])
        run(["ceph", "-c", conf, "osd", "crush", "add", "osd.0", "1", "root=default", "host=h"])
        self.add(["ceph-osd", "-f", "-i", "0", "-c", conf])
        # Waits by itself until the store can be used.
        run(["radosgw-admin", "-n", "client.rgw", "-c", conf, "--admin-socket", "", "user", "create", "--uid=bench",
             "--display-name=bench", f"--access-key={self.user}", f"--secret-key={self.password}"], 120)
        self.add(["radosgw", "-f", "-n", "client.rgw", "-c", conf], self.port)
        self.store = GatewayStore(Bucket("127.0.0.1", self.port, self.user, self.password, self.bucket_name))

    def add(self, command, port=None):
        self.process = start(command, self.log)
        self.processes.append(self.process)
        if port:
            wait_for_port(port, self.process, self.log, seconds=60)

    def stop(self):
        # The last one first: each needs those that were started before it.
        for process in reversed(getattr(self, "processes", [])):
            stop(process)

    def configure(self):
        self.home = f"{self.folder}/ceph"
        for name in ("mon", "osd"):
            os.makedirs(f"{self.home}/{name}")
        self.monitor_port, old_port, cluster = free_port(), free_port(), uuid.uuid4()
        monitor = f"[v2:127.0.0.1:{self.monitor_port},v1:127.0.0.1:{old_port}]"
        # Without "crc" the gateway waits for ever for a secure channel; without "tcp_nodelay" each small answer waits
        # for the client's acknowledgement.
        conf = self.write("ceph.conf", f"""[global]
fsid = {cluster}
mon host = {monitor}
mon initial members = a
public addr = 127.0.0.1
cluster addr = 127.0.0.1
auth cluster required = none
auth service required = none
auth client required = none
ms mon client mode = crc
osd pool default size = 1
osd pool default min size = 1
mon allow pool size one = true
osd crush chooseleaf type = 0
osd pool default pg num = 8
osd pool default pgp num = 8
mon max pg per osd = 1000
run dir = {self.home}
admin socket = {self.home}/$name.asok
log file = {self.home}/$name.log
mon cluster log file = {self.home}/cluster.log
[mon]
mon data = {self.home}/mon
mon data avail crit = 1
mon data avail warn = 2
[osd]
osd data = {self.home}/osd
osd objectstore = memstore
memstore device bytes = 8589934592
[client.rgw]
rgw frontends = beast endpoint=127.0.0.1:{self.port} tcp_nodelay=1
rgw dns name = s3.localhost
rgw gc obj min wait = 5
rgw gc processor period = 10
rgw gc processor max time = 10
""")
        run(["monmaptool", "--create", "--fsid", str(cluster), "--addv", "a", monitor, f"{self.home}/monmap"])
        return conf
