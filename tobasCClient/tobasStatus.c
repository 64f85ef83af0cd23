/* Status record of the archive client: the server's XML status document, texts of the status
 * codes, command names. */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tobasInternal.h"

void tobasInitStatus(tobasSTATUS* status) {
  tobasTraceEnter("tobasInitStatus");
  memset(status, 0, sizeof *status);
  tobasTraceLeave("tobasInitStatus", tobasSTAT_SUCCESS);
}

void tobasFreeStatus(tobasSTATUS* status) {
  tobasTraceEnter("tobasFreeStatus");
  free(status->replyData[0]);
  status->replyData[0] = NULL;
  tobasTraceLeave("tobasFreeStatus", tobasSTAT_SUCCESS);
}

/* Where the value of attribute attr of the first element pt starts in xmlDoc (past its '"'), or NULL. */
static const char* attrValue(const char* xmlDoc, const char* pt, const char* attr) {
  char key[tobasMED_BUF_SIZE + 2];
  if (xmlDoc == NULL || snprintf(key, sizeof key, "<%s", pt) >= (int)sizeof key) return NULL;
  const char* p = strstr(xmlDoc, key);
  if (p == NULL || snprintf(key, sizeof key, "%s=", attr) >= (int)sizeof key) return NULL;
  p = strstr(p + strlen(pt) + 1, key);
  if (p != NULL) p = strchr(p + strlen(key), '"');
  return p != NULL ? p + 1 : NULL;
}

int tobasGetXmlAttr(const char* xmlDoc, const char* pt, const char* attr, int maxValLen, char* value) {
  tobasTraceEnter("tobasGetXmlAttr");
  const char* p = attrValue(xmlDoc, pt, attr);
  const char* end = p != NULL ? strchr(p, '"') : NULL;
  if (end == NULL || maxValLen <= 0 || end - p >= maxValLen)
    return tobasTraceLeave("tobasGetXmlAttr", tobasERR_INV_REPLY);
  memcpy(value, p, (size_t)(end - p));
  value[end - p] = '\0';
  return tobasTraceLeave("tobasGetXmlAttr", tobasSTAT_SUCCESS);
}

int tobasUnpackStatus(char* xmlDoc, tobasSTATUS* status) {
  tobasTraceEnter("tobasUnpackStatus");
  static const char* const el = "Status";
  int stat = tobasSTAT_SUCCESS;
  if (tobasGetXmlAttr(xmlDoc, el, "Date", tobasSMALL_BUF_SIZE, status->date) != 0 ||
      tobasGetXmlAttr(xmlDoc, el, "HostId", tobasSMALL_BUF_SIZE, status->hostId) != 0 ||
      tobasGetXmlAttr(xmlDoc, el, "Message", tobasHUGE_BUF_SIZE, status->message) != 0 ||
      tobasGetXmlAttr(xmlDoc, el, "State", tobasSMALL_BUF_SIZE, status->state) != 0 ||
      tobasGetXmlAttr(xmlDoc, el, "SubState", tobasSMALL_BUF_SIZE, status->subState) != 0 ||
      tobasGetXmlAttr(xmlDoc, el, "Status", tobasSMALL_BUF_SIZE, status->status) != 0 ||
      tobasGetXmlAttr(xmlDoc, el, "Version", tobasSMALL_BUF_SIZE, status->version) != 0) {
    stat = tobasERR_INV_REPLY;
  }
  if (stat == 0) {
    status->errorCode = 0;
    if (strcmp(status->status, "FAILURE") == 0 &&
        (strstr(status->message, ":ERROR:") || strstr(status->message, ":WARNING:") ||
         strstr(status->message, ":ALERT:"))) {
      /* "<identifier>:<number>:ERROR:<text>": the number is the error code. */
      char* copy = strdup(status->message);
      if (copy != NULL) {
        char* save = NULL;
        char* first = strtok_r(copy, ":", &save);
        char* second = first ? strtok_r(NULL, ":", &save) : NULL;
        if (second != NULL) {
          char num[65];
          snprintf(num, sizeof num, "%s", second);
          status->errorCode = atoi(num);
        }
        free(copy);
      }
    }
    if (strcmp(status->status, "FAILURE") != 0 && strcmp(status->status, "SUCCESS") != 0)
      stat = tobasERR_INV_REPLY;
  }
  if (stat != 0) {
    status->errorCode = tobasERR_INV_REPLY;
    tobasStat2Str(tobasERR_INV_REPLY, status->message);
  } else {
    status->replyData[0] = xmlDoc;
  }
  return tobasTraceLeave("tobasUnpackStatus", stat);
}

void tobasFillStatus(int retCode, tobasHTTP_DATA* repDataRef, tobasSTATUS* status, float timeout) {
  tobasTraceEnter("tobasHandleStatus");
  tobasInitStatus(status);
  char* doc = repDataRef ? repDataRef->pdata : NULL;
  if (doc == NULL) {
    tobasStat2Str(retCode, status->message);
    strcpy(status->status, retCode == tobasSRV_OK || retCode == 0 ? "SUCCESS" : "FAILURE");
    status->errorCode = retCode;
  } else {
    repDataRef->pdata = NULL;
    if (tobasUnpackStatus(doc, status) != 0) status->replyData[0] = doc; /* still freed with the record */
  }
  if (status->errorCode == tobasERR_TIMEOUT)
    tobasAppendf(status->message, sizeof status->message, ". Timeout: %.3fs", timeout);
  tobasTraceLeave("tobasHandleStatus", tobasSTAT_SUCCESS);
}

int tobasHandleStatus(int retCode, tobasHTTP_DATA* repDataRef, tobasSTATUS* status) {
  tobasFillStatus(retCode, repDataRef, status, _getTimeOut());
  return tobasSTAT_SUCCESS;
}

/* Texts of the status codes; the spelling of "sucessfully" is required. */
static const struct {
  int code;
  const char* text;
} statTexts[] = {
    {tobasSTAT_SUCCESS, "Status OK"},
    {tobasERR_HOST, "No such host"},
    {tobasERR_SOCK, "Cannot create socket"},
    {tobasERR_CON, "Cannot connect to host/server"},
    {tobasERR_COM, "Problem communicating with server"},
    {tobasERR_TIMEOUT, "Timeout encountered while communicating with server"},
    {tobasERR_WR_HD, "Write error on socket while writing header"},
    {tobasERR_WR_DATA, "Write error on socket while writing data"},
    {tobasERR_RD_DATA, "Read error while reading data"},
    {tobasERR_INV_REPLY, "Invalid reply from data server"},
    {tobasERR_FILE, "Invalid filename specified"},
    {tobasERR_ALLOC_MEM, "Cannot allocate memory"},
    {tobasERR_UNKNOWN_STAT, "Unknown status code"},
    {tobasERR_UNKNOWN_CMD, "Unknown command issued"},
    {tobasERR_INV_TARG_FILE, "Invalid target filename specified"},
    {tobasERR_INV_PARS, "Illegal parameters given"},
    {tobasERR_CHECKSUM, "Checksum of the retrieved file does not match"},
    {tobasERR_OPEN_LOG_FILE, "Could not open specified log file"},
    {tobasSRV_OK, "Request sucessfully handled by server"},
    {tobasSRV_INV_QUERY, "Invalid query"},
};

int tobasStat2Str(int statusCode, char* buf) {
  tobasTraceEnter("tobasStat2Str");
  for (size_t i = 0; i < sizeof statTexts / sizeof statTexts[0]; ++i) {
    if (statTexts[i].code == statusCode) {
      strcpy(buf, statTexts[i].text);
      return tobasTraceLeave("tobasStat2Str", tobasSTAT_SUCCESS);
    }
  }
  return tobasTraceLeave("tobasStat2Str", tobasERR_UNKNOWN_STAT);
}

int tobasSuccess(const tobasSTATUS* status) {
  tobasTraceEnter("tobasSuccess");
  int success = strcmp(status->status, "SUCCESS") == 0;
  tobasTraceLeave("tobasSuccess", tobasSTAT_SUCCESS);
  return success;
}

int tobasLogCodeInStatus(const tobasSTATUS* status, const char* errId) {
  tobasTraceEnter("tobasLogCodeInStatus");
  char key[tobasMED_BUF_SIZE + 2];
  int found =
      snprintf(key, sizeof key, "%s:", errId) < (int)sizeof key && strstr(status->message, key) != NULL;
  tobasTraceLeave("tobasLogCodeInStatus", tobasSTAT_SUCCESS);
  return found;
}

void tobasDumpStatStdout(const tobasSTATUS* status) {
  tobasTraceEnter("tobasDumpStatStdout");
  if (status->date[0]) printf("\nDate:           %s", status->date);
  printf("\nError Code:     %d", (int)status->errorCode);
  if (status->hostId[0]) printf("\nHost ID:        %s", status->hostId);
  if (status->message[0]) printf("\nMessage:        %s", status->message);
  if (status->status[0]) printf("\nStatus:         %s", status->status);
  if (status->state[0]) printf("\nState:          %s", status->state);
  if (status->subState[0]) printf("\nSub-State:      %s", status->subState);
  if (status->version[0]) printf("\nTOB/AS Version: %s", status->version);
  puts("\n");
  tobasTraceLeave("tobasDumpStatStdout", tobasSTAT_SUCCESS);
}

static const char* const cmdNames[] = {
    "ARCHIVE",  "CHECKFILE", "CLONE",   "DISCARD", "EXIT",     "INIT",   "LABEL",     "ONLINE",     "OFFLINE",
    "REGISTER", "REMDISK",   "REMFILE", "RESTORE", "RETRIEVE", "STATUS", "SUBSCRIBE", "UNSUBSCRIBE"};
#define CMD_COUNT ((int)(sizeof cmdNames / sizeof cmdNames[0]))

int tobasCmd2No(const char* cmdStr, int* code) {
  tobasTraceEnter("tobasCmd2No");
  for (int i = 0; cmdStr != NULL && i < CMD_COUNT; ++i) {
    if (strcmp(cmdStr, cmdNames[i]) == 0) {
      *code = i;
      return tobasTraceLeave("tobasCmd2No", tobasSTAT_SUCCESS);
    }
  }
  return tobasTraceLeave("tobasCmd2No", tobasERR_UNKNOWN_CMD);
}

int tobasCmd2Str(int code, char* buf) {
  tobasTraceEnter("tobasCmd2Str");
  if (code < 0 || code >= CMD_COUNT) return tobasTraceLeave("tobasCmd2Str", tobasERR_UNKNOWN_CMD);
  strcpy(buf, cmdNames[code]);
  return tobasTraceLeave("tobasCmd2Str", tobasSTAT_SUCCESS);
}
