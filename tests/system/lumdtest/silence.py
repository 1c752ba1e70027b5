"""Calls whose failure makes the agent do less than it was to, or more, and say nothing: why."""

NO_WAIT = "the work goes on, only without its wait"
AGAIN = "a link that does not come about is tried again"
NO_SUCH = "what cannot be read counts as not there"
NO_SERVICE = "without a configuration no service is enabled"
SILENT = {
    ("poll", "libwebsockets"): NO_WAIT,
    ("poll", "abstract_worker::process_eventfd"): NO_WAIT,
    ("select", "driver_realtek::process_driver_events"): NO_WAIT,
    ("lws_service", "websock_worker::execute"): "the next pass comes 100 ms later",
    ("lws_callback_on_writable", "websock_worker::ask_writeable_when_due"): "asked again 100 ms later",
    ("popen", "driver_io::open_read_pipe < g6_ioctl_ops::set_mib"):
        "whether iwpriv has set a MIB is not looked at",
    ("json_tokener_parse", "json_reader::json_reader"): NO_SUCH,
    ("json_object_get_string", "json_reader::get_string"): NO_SUCH,
    ("opendir", "is_if_exists"): NO_SUCH,
    ("getaddrinfo", "libwebsockets"): AGAIN,
    ("connect", "libwebsockets"): AGAIN,
    ("getsockopt", "libwebsockets"): AGAIN,
    ("lws_client_connect_via_info", "websock_worker::_connect"): AGAIN,
    ("fopen", "websock_cfg_t::parse_file < websock_cfg_t::websock_cfg_t"): NO_SERVICE,
    ("fgets", "websock_cfg_t::parse_file"): NO_SERVICE,
}
