// Station controller: everything that speaks to wpa_supplicant. Other threads
// reach it only through the job queue and the operations declared here; the
// worker's main thread runs the service loop that carries the jobs out.
#pragma once

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "wifi_ap_info/wifi_ap_info.h"
#include "wifi_manager/wifi_manager.h"

struct wpa_ctrl;

// ---------------------------------------------------------------------------
// Job kinds and results

enum JobID : int32_t {
    JobID_Nothing = 0,
    JobID_Scan = 1,
    JobID_GetStatus = 2,
    JobID_ConnectAP = 3,
    JobID_Disconnect = 4,
    JobID_WPS_PBC = 5,
    JobID_WPS_PIN = 6,
};

enum WiFi_Connection_Status : int32_t {
    WIFI_CONNECT_STATUS_UNKNOW = 0,
    WIFI_CONNECT_STATUS_EXPIRE = 1,
    WIFI_CONNECT_STATUS_COMMAND_FAIL = 2,
    WIFI_CONNECT_STATUS_SCANNED = 3,
    WIFI_CONNECT_STATUS_CONNECTING = 4,
    WIFI_CONNECT_STATUS_CONNECTED = 5,
    WIFI_CONNECT_STATUS_DENIAL_BY_IP = 6,
    WIFI_CONNECT_STATUS_ASSOC_REJECT = 7,
    WIFI_CONNECT_STATUS_DISCONNECTED = 8,
    WIFI_CONNECT_STATUS_WPS_START = 9,
    WIFI_CONNECT_STATUS_WPS_OVERLAP = 10,
    WIFI_CONNECT_STATUS_WPS_SUCCESS = 11,
    WIFI_CONNECT_STATUS_WPS_FAIL = 12,
    WIFI_CONNECT_STATUS_WPS_TIMEOUT = 13,
    WIFI_CONNECT_STATUS_FAIL = 14,
    WIFI_CONNECT_STATUS_ABORT = 15,
    WIFI_CONNECT_STATUS_SUCCESS = 16,
};

#define WPACM_JOB_SLOTS 15

// One job slot.
struct wpacm_job_data_struct {
    uint32_t job_index;  // 1..15, fixed
    bool in_used_flag;
    bool high_priority;
    JobID job_id;
    std::string wps_pin;
    wifi_ap_info ap_info;
    int64_t request_timeout_ms;  // absolute deadline on the controller clock
    WiFi_Connection_Status result_value;
    wpacm_job_data_struct* next;
    // Counts the jobs this slot has carried. A caller waits for the job it
    // was given, not for whatever the slot holds later: a queue reset can
    // drop that job and hand the slot to another before the caller looks.
    uint32_t generation;
};
typedef wpacm_job_data_struct wpacm_job_data;

// The job queue: 15 slots on a free list and an in-use list.
struct wpa_request {
    pthread_mutex_t job_mutex;
    pthread_cond_t job_condition;
    std::atomic<bool> heigh_priority_request;
    wpacm_job_data_struct job_array[WPACM_JOB_SLOTS];
    wpacm_job_data_struct* unused_job_list;
    wpacm_job_data_struct* in_used_job_list;
    // The job the service loop is carrying out, which it reads and fills
    // without the lock: a queue reset leaves that slot alone, and the slot
    // goes back to the free list only when its result is posted.
    wpacm_job_data_struct* running_job;
    // Queue resets so far, and how many there had been when the running job
    // was taken: a reset also cuts the running job short, so that the
    // disconnect of a station being switched off runs in time.
    std::atomic<uint32_t> reset_count;
    uint32_t running_reset_count;
};

// ---------------------------------------------------------------------------
// STATUS snapshot and scan list

struct wpa_supplicant_status {
    std::string bssid;
    std::string ssid;
    std::string wpa_state;
    std::string key_mgmt;
};

// Times of an entry are on the controller clock.
struct wifi_scan_ap_info {
    wifi_ap_info ap_info;
    int64_t timeout_ms;     // hard expiry
    int64_t mini_alive_ms;  // kept at least until then
    int not_in_range_count;
    bool in_scan_result;
};

struct scan_result_data {
    pthread_mutex_t scan_result_mutex;
    std::map<std::string, wifi_scan_ap_info> scan_result_list;
    wpa_supplicant_status last_status;
};

struct registed_ap_profile {
    pthread_mutex_t registed_ap_mutex;
    std::vector<wifi_ap_info> registed_ap_info_vector;
};

// The controller's state; one per worker.
struct wpacli_monitor_data {
    std::string wpa_supplicant_config_file;
    std::string wlan_interface;
    // Flags and clocks read by several threads without a lock. The clocks
    // are on the controller clock (wpacm_clock_ms); 0 means not scheduled.
    std::atomic<bool> stop_service;
    std::atomic<bool> enable_feature;
    std::atomic<time_t> next_touch_watch_dog;  // seconds of the monotonic clock
    std::atomic<int64_t> next_scan_clock;
    std::atomic<int64_t> next_connect_clock;
    std::atomic<int> continue_scan_request;
    int max_bound_wifiap_info;
    std::string wpa_socket_file;
    wpa_request request;
    scan_result_data scan_result;
    registed_ap_profile registed_ap_info;
};

// One row of the mapping between wpa_supplicant's key_mgmt/proto/pairwise
// words and our security kinds.
struct wpa_cli_security {
    std::string security_str;
    std::string protocol_str;
    std::string pairwise_str;
    WiFi_Security value;
};
#define WPACM_SECURITY_ROWS 16
extern const wpa_cli_security g_wpa_security_array[WPACM_SECURITY_ROWS];

// Timing of the controller (milliseconds unless said).
#define WPACM_SCAN_ENTRY_LIFETIME_MS 45000
#define WPACM_SCAN_ENTRY_MIN_LIFE_MS 15000
#define WPACM_RESCHEDULE_AFTER_DROP_MS 5000
#define WPACM_WATCHDOG_PERIOD_S 2
#define WPACM_WATCHDOG_NORMAL_S 30
#define WPACM_WATCHDOG_HOOK_S 120
#define WPACM_WATCHDOG_SHORT_S 10
#define WPACM_EVENT_WAIT_MS 1000
#define WPACM_REPLY_SIZE 4096

// ---------------------------------------------------------------------------
// Start-up, shut-down and the wpa_supplicant connection

void* wpacm_init(const std::string& wpa_supplicant_config_file, const std::string& wlan_interface,
                 int max_bound_wifiap_info);
void wpacm_close(void* monitor_data);
bool wpacm_get_enable(void* monitor_data);
std::string wpacm_get_wlan_interface(void* monitor_data);
bool wpacm_send_wpa_request(struct wpa_ctrl* ctrl, const char* command);
void wpacm_clear_all_event(struct wpa_ctrl* ctrl);
int touch_file(const char* path);

// Request threads enter every operation through this gate, so that
// wpacm_close can wait for them to leave before it frees the controller.
// Returns false once the controller is closing; the caller then fails.
bool wpacm_enter_call();
void wpacm_leave_call();
// Holds a request thread inside the gate for one operation.
struct wpacm_call {
    bool entered;
    wpacm_call() : entered(wpacm_enter_call()) {}
    ~wpacm_call() {
        if (entered) {
            wpacm_leave_call();
        }
    }
    wpacm_call(const wpacm_call&) = delete;
    wpacm_call& operator=(const wpacm_call&) = delete;
};

// A controller that cannot lock its own mutex is broken beyond repair: the
// worker ends itself with SIGILL so that its supervisor restarts it.
void wpacm_raise_fatal_signal();
#define WPACM_FATAL_LOCK_FAILURE()                                    \
    do {                                                              \
        WPACM_LOG(LOG_Error, "Can't lock mutex, terminated service"); \
        wpacm_raise_fatal_signal();                                   \
    } while (0)

// String helpers shared by the parsers.
std::string wpacm_remove_quote(const std::string& text);
bool wpacm_cut_string(const std::string& text, char delimiter, size_t& start, size_t& position,
                      std::string& field);
std::string wpacm_replace_string(const std::string& text, const std::string& from,
                                 const std::string& to);
bool wpacm_is_same_security(WiFi_Security a, WiFi_Security b);
const wpa_cli_security* wpacm_find_wpa_security(WiFi_Security value);

// Wall-clock milliseconds since the epoch: what log lines print.
int64_t get_now_time_ms();
// The controller clock: milliseconds of the monotonic clock, never 0 (a
// monotonic clock can be small just after boot, and a scheduled clock of 0
// would read as not scheduled). Every deadline and schedule is on it.
int64_t wpacm_clock_ms();
// A controller-clock time as wall-clock milliseconds, for the log; 0 (not
// scheduled) stays 0.
int64_t wpacm_wall_ms(int64_t clock_ms);
// Seconds of the monotonic clock, for the ping schedule.
time_t wpacm_clock_s();

void clear_wpa_supplicant_status(wpa_supplicant_status* status);
void copy_wpa_supplicant_status(wpa_supplicant_status* dst, const wpa_supplicant_status* src);

// ---------------------------------------------------------------------------
// Job queue

void clear_wpacm_job_data(wpacm_job_data_struct* slot);
// Sets up the queue at start-up: the 15 slots on the free list with indexes
// 1..15, the job condition on the monotonic clock.
void wpacm_init_job_queue(wpa_request* request);
// The queue reset when the station is switched on or off (job_mutex held):
// pending jobs are dropped and their slots freed, with indexes 1..15; the
// running job's slot is left to the service loop.
void wpacm_reset_job_queue(wpa_request* request);
// The generation a caller passes to wpacm_wait_job to wait for whatever job
// the slot holds now (tests that look at a slot directly).
#define WPACM_ANY_GENERATION 0
// Queues a job; *generation (when given) tells wpacm_wait_job which job of
// the slot to wait for.
wpacm_job_data_struct* wpacm_new_job(void* monitor_data, JobID job_id, const wifi_ap_info* ap_info,
                                     const std::string& wps_pin, int timeout_ms,
                                     bool heigh_priority, uint32_t* generation = nullptr);
// Waits on job_condition (job_mutex held) until the start of the next second.
void wpacm_wait_job_condition(wpa_request* request);
// Waits for the job of the given generation. A job dropped by a queue reset
// gives UNKNOW, even when its slot already carries another job.
WiFi_Connection_Status wpacm_wait_job(void* monitor_data, wpacm_job_data_struct* job_data,
                                      wifi_ap_info* ap_info_data,
                                      uint32_t generation = WPACM_ANY_GENERATION);
// The service loop takes the head of the queue to carry it out (job_mutex
// held); null when the queue is empty.
wpacm_job_data_struct* wpacm_take_job(wpa_request* request);
void wpacm_update_job_result(void* monitor_data, wpacm_job_data_struct* job_data,
                             WiFi_Connection_Status result);
void wpacm_touch_watchdog(void* monitor_data, int watchdog_count,
                          int next_resend_time = WPACM_WATCHDOG_PERIOD_S);

// ---------------------------------------------------------------------------
// Events

// What an event's text says, before its side effects are applied.
enum wpacm_event_kind {
    WPACM_EVENT_OTHER,
    WPACM_EVENT_SCAN_RESULTS,
    WPACM_EVENT_BSS_REMOVED,
    WPACM_EVENT_HANDSHAKE_FAILED,
    WPACM_EVENT_AUTHENTICATING,
    WPACM_EVENT_DISCONNECTED,
    WPACM_EVENT_DISCONNECTED_ZERO_BSSID,
    WPACM_EVENT_ASSOCIATED,
    WPACM_EVENT_WPS_CRED_RECEIVED,
    WPACM_EVENT_WPS_OVERLAP,
    WPACM_EVENT_WPS_METHOD,
    WPACM_EVENT_EAP_METHOD_OTHER,
    WPACM_EVENT_WPS_FAIL,
    WPACM_EVENT_WPS_TIMEOUT,
    WPACM_EVENT_CONNECTED,
    WPACM_EVENT_WPS_SUCCESS,
};
// The text after wpa_supplicant's "<n>" level prefix.
const char* wpacm_event_text(const char* message);
wpacm_event_kind wpacm_classify_event(const char* text);
WiFi_Connection_Status wpacm_receive_wpa_supplicant_event(void* monitor_data,
                                                          struct wpa_ctrl* wpa_event_ctrl,
                                                          int timeout_ms = WPACM_EVENT_WAIT_MS);

// ---------------------------------------------------------------------------
// Status and scan list

// Pure parsing of wpa_supplicant's replies.
WiFi_Security wpacm_security_from_flags(const std::string& flags);
int wpacm_signal_to_percent(int level);
bool wpacm_parse_scan_line(const std::string& line, wifi_ap_info* ap_info);
std::string wpacm_scan_key(const wifi_ap_info& ap_info);
bool wpacm_parse_status(const char* reply, wpa_supplicant_status* status);
// Merges a SCAN_RESULTS reply (header already checked) into the list at time now.
void wpacm_merge_scan_results(std::map<std::string, wifi_scan_ap_info>* list, const char* reply,
                              int64_t now);
// Ages the list after an update at time now.
void wpacm_age_scan_list(std::map<std::string, wifi_scan_ap_info>* list, int64_t now);

bool wpacm_update_status(struct wpa_ctrl* ctrl, void* monitor_data);
void wpacm_get_last_status(void* monitor_data, wpa_supplicant_status* status);
bool wpacm_update_scan_result(void* monitor_data, struct wpa_ctrl* ctrl);

// ---------------------------------------------------------------------------
// Connect and WPS procedures (service loop thread only)

bool wpacm_set_network_value(struct wpa_ctrl* ctrl, int network_id, const char* key,
                             const char* value, bool quote_falg);
bool wpacm_update_wpa_network_setting(struct wpa_ctrl* ctrl, wifi_ap_info& ap_info);
std::vector<int> wpacm_parse_network_ids(const char* list_networks_reply);
bool wpacm_clear_all_wpa_network_setting(struct wpa_ctrl* ctrl);
int wpacm_connect_ap_private(void* monitor_data, wpacm_job_data_struct* job_data,
                             struct wpa_ctrl* wpa_command_ctrl, struct wpa_ctrl* wpa_event_ctrl);
int wpacm_wps_private(void* monitor_data, wpacm_job_data_struct* job_data,
                      struct wpa_ctrl* wpa_command_ctrl, struct wpa_ctrl* wpa_event_ctrl);
// Profiles of the network blocks of a wpa_supplicant configuration text.
std::vector<wifi_ap_info> wpacm_read_wpa_config_profiles(const std::string& text);
// The security of a block that no row of the table matches, from its
// key_mgmt, proto and pairwise words as written (blanks kept), and whether
// it has a WEP key; WIFI_SECURITY_UNKNOWN when the words name no kind.
WiFi_Security wpacm_security_from_block_words(const std::string& key_mgmt, const std::string& proto,
                                              const std::string& pairwise, bool has_wep_key0);
std::string wpacm_wps_pin_from_value(uint32_t value);
std::string wpacm_get_wps_pin(void* monitor_data);

// Reads events for a connect or WPS job until `ends` accepts the status one
// of them produced, or the job has to give up (shutdown, deadline, a
// high-priority job waiting). Returns the last status an event produced, or
// EXPIRE when none did.
WiFi_Connection_Status wpacm_wait_job_outcome(wpacli_monitor_data* data, wpacm_job_data_struct* job,
                                              struct wpa_ctrl* event_ctrl,
                                              bool (*ends)(WiFi_Connection_Status));
// A normal-priority job gives way as soon as a high-priority one is queued;
// any job gives way to a queue reset (the station switched on or off).
bool wpacm_job_preempted(wpacli_monitor_data* data, const wpacm_job_data_struct* job);
// Pings the supervisor when the last ping is two seconds old.
void wpacm_ping_if_due(wpacli_monitor_data* data);

// ---------------------------------------------------------------------------
// Service loop and operations offered to the request services

void wpacm_service(void* monitor_data);
void wpacm_set_enable(void* monitor_data, bool enable);
int wpacm_connect_to_ap(void* monitor_data, wifi_ap_info* ap_info_data);
bool wpacm_get_connected_ssid(void* monitor_data, std::string& ssid, std::string& bssid);
bool wpacm_disconnect(void* monitor_data);
int wpacm_wps(void* monitor_data, const std::string& pin_data, wifi_ap_info* ap_info_data);
bool wpacm_remove_ssid(void* monitor_data, const std::string& ssid, WiFi_Security security);
void wpacm_get_register_profile(void* monitor_data,
                                std::vector<wifi_ap_info>& registed_ap_info_vector);
void wpacm_update_wifi_profile(void* monitor_data, wifi_ap_info* ap_info_data, bool append_flag);
// Writes the station switch and the registered profiles to the profile file
// under the profiles' mutex. At shut-down and when the switch changes a lock
// failure skips the write without a line: no operation on the profiles has
// failed, and the next write of the list brings the file up to date.
void wpacm_write_back_profiles(wpacli_monitor_data* data);
bool wpacm_get_wifi_ap_list(void* monitor_data, std::vector<wifi_ap_info>& ap_info_vector);

// The controller's lines: log readers find each by the function named in it.
#define WPACM_LOG_SOURCE "wpacli_monitor.cpp"
#define WPACM_LOG(level, fmt, ...) \
    WIFIM_LOG_AT(level, WPACM_LOG_SOURCE, __func__, fmt, ##__VA_ARGS__)
// A helper split out of a longer function writes that function's lines under
// that function's name, the one the device has always written them under.
// The compiler checks that `owner` names a function.
#define WPACM_LOG_AS(owner, level, fmt, ...) \
    WIFIM_LOG_AT(level, WPACM_LOG_SOURCE, ((void)&owner, #owner), fmt, ##__VA_ARGS__)
