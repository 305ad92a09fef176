// The station controller's own: its state record, the job queue, the loop's
// state, the parsers of wpa_supplicant's replies and the procedures, and the
// timing of it all. Used by the controller's files and its tests; the rest of
// the worker sees only wpacli_monitor.h.
#pragma once

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "wpacli_monitor.h"

struct wpa_ctrl;

// ---------------------------------------------------------------------------
// Timing and pacing (milliseconds unless said), in one place

// Job time-outs: how long a job may wait in the queue and run.
#define WPACM_SCAN_JOB_TIMEOUT_MS 10000
#define WPACM_CONNECT_TIMEOUT_MS 40000  // a client's connect and an automatic one
#define WPACM_STATUS_TIMEOUT_MS 5000
#define WPACM_DISCONNECT_TIMEOUT_MS 10000
#define WPACM_DISABLE_TIMEOUT_MS 5000  // the disconnect of a station switched off
#define WPACM_WPS_TIMEOUT_MS 120000
// The scan schedule.
#define WPACM_FORCED_SCANS 5  // scans queued at start, whatever the schedule
#define WPACM_INITIAL_SCAN_REQUESTS 3
#define WPACM_SCAN_INTERVAL_MS 10000
#define WPACM_SLOW_SCAN_INTERVAL_MS 30000  // once the scan requests are used up
#define WPACM_SCAN_RETRY_MS 2000           // after a refused SCAN
// The automatic connection.
#define WPACM_FIRST_CONNECT_DELAY_MS 20000  // when not connected at start
#define WPACM_NO_PROFILE_BACKOFF_MS 30000
#define WPACM_NO_PROFILE_LONG_BACKOFF_MS 60000
#define WPACM_NO_PROFILE_SHORT_TRIES 6  // then the long back-off
#define WPACM_CHOICE_RETRY_MS 5000      // lists busy, or nothing scanned
// Both clocks after the link dropped or a disconnect job, and after a
// client's connect or WPS run that did not succeed.
#define WPACM_RESCHEDULE_AFTER_DROP_MS 5000
#define WPACM_BACKOFF_AFTER_REQUEST_MS 5000
// Switching the station on: the first scan and connection.
#define WPACM_ENABLE_DELAY_MS 1000
// The scan list: an access point stays listed at least this long after it
// was last seen, and at most that long.
#define WPACM_SCAN_ENTRY_MIN_LIFE_MS 15000
#define WPACM_SCAN_ENTRY_LIFETIME_MS 45000
// Pings of the supervisor: the allowance each grants (seconds), and how
// often they are sent while the worker is busy.
#define WPACM_WATCHDOG_PERIOD_S 2
#define WPACM_WATCHDOG_NORMAL_S 30
#define WPACM_WATCHDOG_HOOK_S 120  // while the connected hook runs
#define WPACM_WATCHDOG_SHORT_S 10  // while queued events are drained
// One wait for an event.
#define WPACM_EVENT_WAIT_MS 1000
// The connect procedure's pause after DISCONNECT (microseconds).
#define WPACM_DISCONNECT_PAUSE_US 500000
// Commands to wpa_supplicant: attempts, and the base of the growing pause
// between them.
#define WPACM_REQUEST_ATTEMPTS 5
#define WPACM_REQUEST_RETRY_STEP_MS 10
// How long wpacm_close waits for request threads to leave the controller.
#define WPACM_CLOSE_WAIT_MS 10000

// Replies of wpa_supplicant are read into buffers of this size.
#define WPACM_REPLY_SIZE 4096

// ---------------------------------------------------------------------------
// Job kinds and the job queue

enum JobID : int32_t {
    JobID_Nothing = 0,
    JobID_Scan = 1,
    JobID_GetStatus = 2,
    JobID_ConnectAP = 3,
    JobID_Disconnect = 4,
    JobID_WPS_PBC = 5,
    JobID_WPS_PIN = 6,
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

// Log lines name a job's priority so ("hight" is how log readers match it).
const char* wpacm_priority_word(bool high_priority);

// ---------------------------------------------------------------------------
// STATUS snapshot, scan list and the controller's state

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

// ---------------------------------------------------------------------------
// Start-up, shut-down and the wpa_supplicant connection

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
const wpa_cli_security* wpacm_find_wpa_security(WiFi_Security value);

// Network names. wpa_supplicant prints an SSID escaped (\", \\, \n, \r,
// \t, \e, \xNN); the daemon's name of a network is its bytes when they are
// readable UTF-8 text without control characters, and P"escaped bytes"
// otherwise.
std::string wpacm_decode_wpa_text(const std::string& text);
std::string wpacm_encode_wpa_text(const std::string& bytes);
bool wpacm_is_readable_name(const std::string& bytes);
std::string wpacm_ssid_from_bytes(const std::string& bytes);
std::string wpacm_ssid_to_bytes(const std::string& name);
// The name of an SSID as SCAN_RESULTS, STATUS and events print it.
std::string wpacm_ssid_from_wpa_text(const std::string& text);
// The value of SET_NETWORK ssid for a name: the text itself, to be quoted,
// when it is printable ASCII without quote and backslash (quoted set true),
// else the bytes in hexadecimal (quoted set false).
std::string wpacm_ssid_network_value(const std::string& name, bool* quoted);
// The name of a saved network's ssid value ("text", P"escaped" or hex).
std::string wpacm_ssid_from_config_value(const std::string& value);

void clear_wpa_supplicant_status(wpa_supplicant_status* status);
void copy_wpa_supplicant_status(wpa_supplicant_status* dst, const wpa_supplicant_status* src);

// ---------------------------------------------------------------------------
// Clocks

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
// A scheduled clock never reads 0, which means "not scheduled".
int64_t wpacm_schedule_clock(int64_t when);
// The next scan and the next automatic connection, both at when: a
// connection is decided after a scan.
void wpacm_schedule_scan_and_connect(wpacli_monitor_data* data, int64_t when);

// ---------------------------------------------------------------------------
// The job queue and the watchdog

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
// What the station is after a connect or WPS run: pings the supervisor,
// refreshes the STATUS snapshot and copies it to status.
void wpacm_status_after_run(wpacli_monitor_data* data, struct wpa_ctrl* ctrl,
                            wpa_supplicant_status* status);

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
// The service loop

// State of one run of the service loop.
struct wpacm_loop_state {
    wpacli_monitor_data* data;
    struct wpa_ctrl* event_ctrl;
    struct wpa_ctrl* command_ctrl;
    wpa_supplicant_status last_status;
    std::string last_bssid;  // avoided by the next automatic choice
    wifi_ap_info candidate;
    int force_scan_count;
    int no_profile_count;
};

// The BSSID the next automatic choice avoids after a connect job that
// came to `result`; empty when nothing is to be avoided.
std::string wpacm_bssid_to_pass_over(const wpacm_job_data_struct& job, int result);
// Automatic connection: the best registered profile in range.
int wpacm_choose_profile(wpacm_loop_state* loop);
void wpacm_auto_connect(wpacm_loop_state* loop);
// Jobs the loop performs; each returns the result to post.
WiFi_Connection_Status wpacm_run_scan_job(wpacm_loop_state* loop, wpacm_job_data_struct* job,
                                          bool* keep_connection);
// Posts its own result before cleaning up.
void wpacm_run_disconnect_job(wpacm_loop_state* loop, wpacm_job_data_struct* job);

// ---------------------------------------------------------------------------
// The registered profiles

// Writes the station switch and the registered profiles to the profile file
// under the profiles' mutex. At shut-down and when the switch changes a lock
// failure skips the write without a line: no operation on the profiles has
// failed, and the next write of the list brings the file up to date.
void wpacm_write_back_profiles(wpacli_monitor_data* data);

// ---------------------------------------------------------------------------
// Log lines of helpers

// A helper split out of a longer function writes that function's lines under
// that function's name, the one the device has always written them under.
// The compiler checks that `owner` names a function.
#define WPACM_LOG_AS(owner, level, fmt, ...) \
    WIFIM_LOG_AT(level, WPACM_LOG_SOURCE, ((void)&owner, #owner), fmt, ##__VA_ARGS__)
