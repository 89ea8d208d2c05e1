"""Reference AWS Signature Version 4 for S3, from botocore, for the signer
tests: reads a JSON list of requests on stdin and prints, for each, the
canonical request, the string to sign and the signature botocore computes
at the request's fixed time stamp."""
import json
import sys

from botocore.auth import S3SigV4Auth
from botocore.awsrequest import AWSRequest
from botocore.credentials import Credentials
from botocore.utils import percent_encode

results = []
for case in json.load(sys.stdin):
    # The path is encoded here, the way boto's own S3 client does, so that
    # the signer's encoding is compared rather than handed over.
    path = "/" + case["bucket"]
    if case["key"]:
        path += "/" + percent_encode(case["key"], safe="/~")
    request = AWSRequest(method=case["method"], url=case["endpoint"] + path,
                         headers=case["headers"], params=case["query"])
    request.context["timestamp"] = case["timestamp"]
    auth = S3SigV4Auth(Credentials(case["access_key"], case["secret_key"]), "s3",
                       case["region"])
    canonical = auth.canonical_request(request)
    to_sign = auth.string_to_sign(request, canonical)
    results.append({"canonical_request": canonical, "string_to_sign": to_sign,
                    "signature": auth.signature(to_sign, request)})
json.dump(results, sys.stdout)
