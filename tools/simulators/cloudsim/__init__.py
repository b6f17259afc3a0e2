"""The cloud's three services, for running the agent without a cloud: see cloud.py for the entry.

common.py     listening, faults and plain output lines, shared by the services
balancer.py   the directory service: issues cloud IDs, names the streaming server
streaming.py  the streaming server: registrations of agents, viewers, the relay between them
rtsp.py       RTSP messages and interleaved frames, basic and digest authentication
account.py    the account service and the camera web interface that the agent's pages post to
"""
