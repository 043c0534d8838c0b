"""What bench/compare is made of: servers, programs, works, and the report."""
