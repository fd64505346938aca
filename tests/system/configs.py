"""Configurations of the system tests."""

STATIC = """
[media]
rtp_port_start = 10000
rtp_port_end   = 10199
rtcp_enabled   = true
[nat]
gw_interface         = "*"
sip_udp_port         = 5060
sip_tcp_port         = 5060
sip_udp_public_ip    = "203.0.113.7"
sip_udp_public_port  = 15060
sip_tcp_public_ip    = "203.0.113.7"
sip_tcp_public_port  = 15061
gw_public_ip         = "203.0.113.7"
gw_public_port_start = 20000
gw_public_port_end   = 20199
exclusions = [ { ip = "10.0.0.0", mask = "255.0.0.0" }, { ip = "172.20.0.0", mask = "255.255.0.0" } ]
"""
