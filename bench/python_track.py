"""Times pelora.Client.track for the benchmark's 10-property event (bench/bindings_bench.cpp runs
it): python3 python_track.py COUNT DOCUMENTS_DIR PREFERENCES_DIR; prints "ns_per_event N"."""

import sys
import time
from decimal import Decimal

import pelora

count, documents, preferences = int(sys.argv[1]), sys.argv[2], sys.argv[3]
properties = {
    "product": "Rain jacket", "sku": "RJ-2041-BLU-M", "category": "outerwear", "quantity": 2,
    "stock": 1840, "price": Decimal("129.95"), "discount": Decimal("0.15"), "gift": True,
    "shipping": {"method": "express", "days": 2}, "tags": ["sale", "new", 7],
}
with pelora.Client("bench-write-key", enable_iam=False, flush_at=2**62, flush_interval=86400,
                   shutdown_timeout=0,
                   documents_dir=documents, preferences_dir=preferences) as client:
    for _ in range(min(count, 1000)):  # warm-up
        client.track("Product Added", properties)
    start = time.perf_counter_ns()
    for _ in range(count):
        client.track("Product Added", properties)
    elapsed = time.perf_counter_ns() - start
print("ns_per_event", elapsed / count)
