"""Reference runtime server for the node agent: services, downloads, state.

Run it with `python3 tools/runtime_server/server.py serve ...`, or import
`runtime_server.httpd.RuntimeServer` to run it on a thread in a test.
"""
