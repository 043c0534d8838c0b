#include "tests/webdav/Dialects.h"

namespace ombra {
namespace {

constexpr const char* kApache = R"(<?xml version="1.0" encoding="utf-8"?>
<D:multistatus xmlns:D="DAV:" xmlns:ns0="DAV:">
<D:response xmlns:lp1="DAV:" xmlns:lp2="http://apache.org/dav/props/" xmlns:g0="DAV:">
<D:href>/dav/</D:href>
<D:propstat>
<D:prop>
<lp1:resourcetype><D:collection/></lp1:resourcetype>
<lp1:getlastmodified>Sat, 21 Nov 2026 10:21:25 GMT</lp1:getlastmodified>
<lp1:creationdate>2026-11-21T10:21:25Z</lp1:creationdate>
</D:prop>
<D:status>HTTP/1.1 200 OK</D:status>
</D:propstat>
<D:propstat>
<D:prop>
<g0:getcontentlength/>
</D:prop>
<D:status>HTTP/1.1 404 Not Found</D:status>
</D:propstat>
</D:response>
<D:response xmlns:lp1="DAV:" xmlns:lp2="http://apache.org/dav/props/">
<D:href>/dav/%c3%a9%20%25%23%3f&amp;+.txt</D:href>
<D:propstat>
<D:prop>
<lp1:resourcetype/>
<lp1:getcontentlength>5</lp1:getcontentlength>
<lp1:getlastmodified>Sat, 21 Nov 2026 10:21:25 GMT</lp1:getlastmodified>
<lp1:creationdate>2026-11-21T10:21:25Z</lp1:creationdate>
</D:prop>
<D:status>HTTP/1.1 200 OK</D:status>
</D:propstat>
</D:response>
<D:response xmlns:lp1="DAV:" xmlns:lp2="http://apache.org/dav/props/" xmlns:g0="DAV:">
<D:href>/dav/sub/</D:href>
<D:propstat>
<D:prop>
<lp1:resourcetype><D:collection/></lp1:resourcetype>
<lp1:getlastmodified>Sat, 21 Nov 2026 10:21:25 GMT</lp1:getlastmodified>
<lp1:creationdate>2026-11-21T10:21:25Z</lp1:creationdate>
</D:prop>
<D:status>HTTP/1.1 200 OK</D:status>
</D:propstat>
</D:response>
</D:multistatus>)";

constexpr const char* kNginx = R"(<?xml version="1.0" encoding="utf-8" ?>
<D:multistatus xmlns:D="DAV:">
<D:response>
<D:href>/dav/</D:href>
<D:propstat>
<D:prop>
<D:getlastmodified>Sat, 21 Nov 2026 10:21:25 GMT</D:getlastmodified>
<D:resourcetype><D:collection/></D:resourcetype>
</D:prop>
<D:status>HTTP/1.1 200 OK</D:status>
</D:propstat>
</D:response>
<D:response>
<D:href>/dav/%C3%A9%20%25%23%3F&amp;+.txt</D:href>
<D:propstat>
<D:prop>
<D:getcontentlength>5</D:getcontentlength>
<D:getlastmodified>Sat, 21 Nov 2026 10:21:25 GMT</D:getlastmodified>
<D:resourcetype></D:resourcetype>
</D:prop>
<D:status>HTTP/1.1 200 OK</D:status>
</D:propstat>
</D:response>
<D:response>
<D:href>/dav/sub/</D:href>
<D:propstat>
<D:prop>
<D:getlastmodified>Sat, 21 Nov 2026 10:21:25 GMT</D:getlastmodified>
<D:resourcetype><D:collection/></D:resourcetype>
</D:prop>
<D:status>HTTP/1.1 200 OK</D:status>
</D:propstat>
</D:response>
</D:multistatus>)";

constexpr const char* kLighttpd = R"(<?xml version="1.0" encoding="utf-8"?>
<D:multistatus xmlns:D="DAV:" xmlns:ns0="urn:uuid:c2f41010-65b3-11d1-a29f-00aa00c14882/">
<D:response>
<D:href>/dav/</D:href>
<D:propstat>
<D:prop>
<D:resourcetype><D:collection/></D:resourcetype><D:getcontentlength>4096</D:getcontentlength><D:getlastmodified ns0:dt="dateTime.rfc1123">Sat, 21 Nov 2026 10:21:25 GMT</D:getlastmodified></D:prop>
<D:status>HTTP/1.1 200 OK</D:status>
</D:propstat>
<D:propstat>
<D:prop>
<creationdate xmlns="DAV:"/></D:prop>
<D:status>HTTP/1.1 404 Not Found</D:status>
</D:propstat>
</D:response>
<D:response>
<D:href>/dav/%C3%A9%20%25%23%3F%26%2B.txt</D:href>
<D:propstat>
<D:prop>
<D:resourcetype/><D:getcontentlength>5</D:getcontentlength><D:getlastmodified ns0:dt="dateTime.rfc1123">Sat, 21 Nov 2026 10:21:25 GMT</D:getlastmodified></D:prop>
<D:status>HTTP/1.1 200 OK</D:status>
</D:propstat>
<D:propstat>
<D:prop>
<creationdate xmlns="DAV:"/></D:prop>
<D:status>HTTP/1.1 404 Not Found</D:status>
</D:propstat>
</D:response>
<D:response>
<D:href>/dav/sub/</D:href>
<D:propstat>
<D:prop>
<D:resourcetype><D:collection/></D:resourcetype><D:getcontentlength>4096</D:getcontentlength><D:getlastmodified ns0:dt="dateTime.rfc1123">Sat, 21 Nov 2026 10:21:25 GMT</D:getlastmodified></D:prop>
<D:status>HTTP/1.1 200 OK</D:status>
</D:propstat>
</D:response>
</D:multistatus>)";

// A server written in Go, as for serving remotes: everything in one line, the folder's name without a slash
// at its end, and folders without a date.
constexpr const char* kGo =
    R"(<?xml version="1.0" encoding="UTF-8"?><D:multistatus xmlns:D="DAV:"><D:response><D:href>/dav</D:href>)"
    R"(<D:propstat><D:prop><D:resourcetype><D:collection xmlns:D="DAV:"/></D:resourcetype>)"
    R"(<D:getlastmodified>Sat, 21 Nov 2026 10:21:25 GMT</D:getlastmodified></D:prop>)"
    R"(<D:status>HTTP/1.1 200 OK</D:status></D:propstat><D:propstat><D:prop><D:creationdate></D:creationdate>)"
    R"(</D:prop><D:status>HTTP/1.1 404 Not Found</D:status></D:propstat></D:response><D:response>)"
    R"(<D:href>/dav/%C3%A9%20%25%23%3F&amp;+.txt</D:href><D:propstat><D:prop><D:resourcetype></D:resourcetype>)"
    R"(<D:getcontentlength>5</D:getcontentlength>)"
    R"(<D:getlastmodified>Sat, 21 Nov 2026 10:21:25 GMT</D:getlastmodified></D:prop>)"
    R"(<D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response><D:response><D:href>/dav/sub/</D:href>)"
    R"(<D:propstat><D:prop><D:resourcetype><D:collection xmlns:D="DAV:"/></D:resourcetype></D:prop>)"
    R"(<D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response></D:multistatus>)";

// A hosted cloud: its files lie below a long path, properties of others stand between, the quota is -3.
constexpr const char* kCloud = R"(<?xml version="1.0"?>
<d:multistatus xmlns:d="DAV:" xmlns:s="http://sabredav.org/ns" xmlns:oc="http://owncloud.org/ns">
<d:response><d:href>/remote.php/dav/files/wanda/</d:href><d:propstat><d:prop>
<d:resourcetype><d:collection/></d:resourcetype><d:getlastmodified>Sat, 21 Nov 2026 10:21:25 GMT</d:getlastmodified>
<d:quota-available-bytes>-3</d:quota-available-bytes><oc:size>12345</oc:size>
</d:prop><d:status>HTTP/1.1 200 OK</d:status></d:propstat><d:propstat><d:prop><d:getcontentlength/>
</d:prop><d:status>HTTP/1.1 404 Not Found</d:status></d:propstat></d:response>
<d:response><d:href>/remote.php/dav/files/wanda/%c3%a9%20%25%23%3f%26%2b.txt</d:href><d:propstat><d:prop>
<oc:getcontentlength>99</oc:getcontentlength><d:resourcetype/><d:getcontentlength>5</d:getcontentlength>
<d:getlastmodified>Sat, 21 Nov 2026 10:21:25 GMT</d:getlastmodified></d:prop>
<d:status>HTTP/1.1 200 OK</d:status></d:propstat></d:response>
<d:response><d:href>/remote.php/dav/files/wanda/sub/</d:href><d:propstat><d:prop>
<d:resourcetype><d:collection/></d:resourcetype></d:prop><d:status>HTTP/1.1 200 OK</d:status></d:propstat>
</d:response></d:multistatus>)";

// An older server of another family: whole URLs, typed values, an upper-case host, blanks around everything.
constexpr const char* kWindows =
    "\xEF\xBB\xBF"
    R"(<?xml version="1.0"?><a:multistatus xmlns:b="urn:uuid:c2f41010-65b3-11d1-a29f-00aa00c14882/"
 xmlns:c="xml:" xmlns:a="DAV:"><a:response><a:href> http://SERVER:80/dav/ </a:href><a:propstat>
<a:status>HTTP/1.1 200 OK</a:status><a:prop><a:resourcetype><a:collection/></a:resourcetype>
<a:getcontentlength b:dt="int"> 0 </a:getcontentlength><a:creationdate b:dt="dateTime.tz">2026-11-21T10:21:25.000Z
</a:creationdate></a:prop></a:propstat></a:response><a:response>
<a:href>http://SERVER:80/dav/%C3%A9%20%25%23%3F%26+.txt</a:href><a:propstat><a:status>HTTP/1.1 200 OK</a:status>
<a:prop><a:getcontentlength b:dt="int">5</a:getcontentlength><a:iscollection b:dt="boolean">0</a:iscollection>
<a:creationdate b:dt="dateTime.tz">2026-11-21T10:21:25.000Z</a:creationdate>
<a:getlastmodified b:dt="dateTime.rfc1123">Sat, 21 Nov 2026 10:21:25 GMT</a:getlastmodified><a:resourcetype/>
</a:prop></a:propstat></a:response><a:response><a:href>http://SERVER:80/dav/sub</a:href><a:propstat>
<a:status>HTTP/1.1 200 OK</a:status><a:prop><a:resourcetype/><a:iscollection b:dt="boolean">1</a:iscollection>
</a:prop></a:propstat></a:response></a:multistatus>)";

// Behind a proxy that knows the folder by another name; the names are not encoded, and the text is marked.
constexpr const char* kProxied = R"(<?xml version="1.0" encoding="utf-8"?>
<multistatus xmlns="DAV:"><response><href>/inside/files</href><propstat><prop><resourcetype><collection/>
</resourcetype></prop><status>HTTP/1.1 200 OK</status></propstat></response>
<response><href><![CDATA[/inside/files/)"
                                 "\xC3\xA9"
                                 R"( %25%23%3F&+.txt]]></href><propstat><prop><resourcetype/>
<getcontentlength>5</getcontentlength><getlastmodified>2026-11-21T10:21:25Z</getlastmodified></prop>
<status>HTTP/1.1 200 OK</status></propstat></response>
<response><href>/inside/files/sub</href><propstat><prop><resourcetype><collection/></resourcetype></prop>
<status>HTTP/1.1 200 OK</status></propstat></response></multistatus>)";

}  // namespace

const std::vector<DAVDialect>& davDialects() {
  static const std::string kName = "\xC3\xA9 %#?&+.txt";
  static const std::vector<DAVDialect> sDialects{
      {"Apache", "/dav", kApache, kName, true},
      {"Nginx", "/dav/", kNginx, kName, false},
      {"Lighttpd", "/dav", kLighttpd, kName, false},
      {"Go", "/dav", kGo, kName, false},
      {"Cloud", "/remote.php/dav/files/wanda", kCloud, kName, false},
      {"Windows", "/dav", kWindows, kName, true},
      {"Proxied", "/dav", kProxied, kName, false},
  };
  return sDialects;
}

}  // namespace ombra
