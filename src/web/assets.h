// The files of assets/, embedded when the agent is built, each without its last line feed. Texts
// with {{fields}} are filled in by template_append.
#pragma once

extern const char ASSET_CHANNEL_JSON[];
extern const char ASSET_CLOUD_ID_HTML[];
extern const char ASSET_CLOUD_ID_JS[];
extern const char ASSET_ERROR_HTML[];
extern const char ASSET_HOME_CSS[];
extern const char ASSET_HOME_JS[];
extern const char ASSET_HOME_HEAD_HTML[];
extern const char ASSET_HOME_LINK_HTML[];
extern const char ASSET_HOME_TAIL_HTML[];
extern const char ASSET_LANGUAGE_JS[];
extern const char ASSET_REDIRECT_CSS[];
extern const char ASSET_REDIRECT_HTML[];
extern const char ASSET_REDIRECT_JS[];
extern const char ASSET_STATS_JS[];
extern const char ASSET_STATS_CARD_HTML[];
extern const char ASSET_STATS_HEAD_HTML[];
extern const char ASSET_STATS_TAIL_HTML[];
extern const char ASSET_STREAMS_JS[];
extern const char ASSET_STREAMS_DEVICE_HTML[];
extern const char ASSET_STREAMS_EMPTY_HTML[];
extern const char ASSET_STREAMS_HEAD_HTML[];
extern const char ASSET_STREAMS_ROW_HTML[];
extern const char ASSET_STREAMS_ROW_PAIR_HTML[];
extern const char ASSET_STREAMS_TABLE_HTML[];
extern const char ASSET_STREAMS_TAIL_HTML[];
extern const char ASSET_STYLE_CSS[];
