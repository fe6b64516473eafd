"""The configuration file and the parameters taken from it."""

from .common import DEBUG, DEBUG_EX, ERROR, FAILED, INFO, OK, c_long, i8, i16, i32

_BLANKS = " \t\r\n"
_ADDRESSES = {
    "shfe2ps_ip_a": "239.4.42.72:21000", "shfe2ps_ip_b": "239.3.42.71:21000",
    "shfe4ps_ip_a": "239.3.2.3:21101", "shfe4ps_ip_b": "239.4.2.4:21101",
    "ine2ps_ip_a": "239.3.52.71:25000", "ine2ps_ip_b": "239.4.52.72:25000",
    "ine4ps_ip_a": "239.4.151.92:25101", "ine4ps_ip_b": "239.3.151.91:25101",
}
_TOPICS = {"shfe2ps_topic_id": "1000", "shfe4ps_topic_id": "1101", "ine2ps_topic_id": "5000",
           "ine4ps_topic_id": "5101"}


class ConfigData:
    """The parameters, all empty, zero or off until a file is read."""

    def __init__(self):
        self.device = self.insts = ""
        for name in _ADDRESSES:
            setattr(self, name, "")
        self.listen_insts = []
        for name in _TOPICS:
            setattr(self, name, 0)
        self.md2ps_snap_port = self.md4ps_snap_port = 0
        self.cpucore = self.timeout_cnt = 0
        self.recvall = self.options = self.split_all_field = 0
        self.shield_price_check = False
        self.shfe2ps = self.shfe4ps = self.ine2ps = self.ine4ps = False
        self.recovery = False


class ConfigParse:
    def __init__(self, data, log):
        self.data = data
        self.log = log
        self.sections = {}

    def _load(self, name, content):
        """content: the file's bytes, or None when it cannot be opened."""
        self.log.write(INFO, "ConfigParse _LoadConfig", f"read configure file: {name}")
        if content is None:
            self.log.write(ERROR, "ConfigParse _LoadConfig", f"unable to open config file: {name}")
            return FAILED
        section = ""
        for line in content.decode("latin-1").split("\n"):
            line = line.strip(_BLANKS)
            for mark in ";#":
                line = line.split(mark, 1)[0]
            line = line.strip(_BLANKS)
            if not line:
                continue
            if line[0] == "[":
                end = line.find("]")
                if end >= 0:
                    section = line[1:end]
                    self.sections[section] = {}
                continue
            key, equals, value = line.partition("=")
            if equals and section:
                self.sections[section][key.strip(_BLANKS)] = value.strip(_BLANKS)
        return OK

    def _get(self, key, default=""):
        return self.sections.get("config", {}).get(key, default)

    def init_config(self, name, content):
        if self._load(name, content) != OK:
            return FAILED
        data = self.data
        data.device = self._get("device")
        data.insts = self._get("insts")
        for key, default in _ADDRESSES.items():
            setattr(data, key, self._get(key, default))
        for key, default in _TOPICS.items():
            setattr(data, key, i16(c_long(self._get(key, default))))
        data.md2ps_snap_port = c_long(self._get("md2ps_snap_port", "33022")) & 0xFFFF
        data.md4ps_snap_port = c_long(self._get("md4ps_snap_port", "22000")) & 0xFFFF
        data.cpucore = i16(c_long(self._get("cpucore")))
        data.recvall = int(data.insts == "all")
        data.options = int(self._get("options") != "norecv")
        data.split_all_field = i8(c_long(self._get("split_all_field", "1")))
        data.shfe2ps = self._get("shfe2ps") == "enabled"
        data.ine2ps = self._get("ine2ps") == "enabled"
        pieces = (piece.strip(_BLANKS) for piece in data.insts.split(","))
        data.listen_insts = [piece for piece in pieces if piece]
        data.timeout_cnt = i16(c_long(self._get("timeout_cnt", "10")))
        data.shield_price_check = c_long(self._get("shield_price_check", "0")) == 1
        data.recovery = self._get("recovery") == "enabled"
        level = i32(c_long(self._get("log_level", "7")))
        self.log.mask = level
        return self._report(level)

    def _report(self, level):
        d = self.data
        self.log.write(DEBUG, "ConfigParse InitConfig", (
            f"configure param: device: {d.device}, insts: {d.insts},\n"
            f"shfe2ps_ip_a: {d.shfe2ps_ip_a}, shfe2ps_ip_b: {d.shfe2ps_ip_b}, "
            f"shfe4ps_ip_a: {d.shfe4ps_ip_a}, shfe4ps_ip_b: {d.shfe4ps_ip_b},"
            f"ine2ps_ip_b: {d.ine2ps_ip_b}, ine2ps_ip_a: {d.ine2ps_ip_a}, "
            f"ine4ps_ip_b: {d.ine4ps_ip_b}, ine4ps_ip_a: {d.ine4ps_ip_a},\n"
            f"hfe2ps_topic_id: {d.shfe2ps_topic_id}, hfe4ps_topic_id: {d.shfe4ps_topic_id}, "
            f"ne2ps_topic_id: {d.ine2ps_topic_id}, ne4ps_topic_id: {d.ine4ps_topic_id},"
            f"md2ps_snap_port: {d.md2ps_snap_port}, md4ps_snap_port: {d.md4ps_snap_port}, "
            f"cpucore: {d.cpucore}, recvall: {d.recvall}, options: {d.options}, "
            f"split_all_field: {d.split_all_field},\n"
            f"shfe2ps: {int(d.shfe2ps)}, shfe4ps: {int(d.shfe4ps)}, ine2ps: {int(d.ine2ps)}, "
            f"ine4ps: {int(d.ine4ps)},timeout_cnt: {d.timeout_cnt}, log_level: {level}"))
        if level > 7:
            for inst in d.listen_insts:
                self.log.write(DEBUG_EX, "ConfigParse InitConfig", f"inst: {inst}")
        if not d.device:
            self.log.write(ERROR, "ConfigParse InitConfig", "null device name")
            return FAILED
        if not d.recvall and not d.listen_insts:
            self.log.write(ERROR, "ConfigParse InitConfig", "no subscribed instrument")
            return FAILED
        return OK
