/* Status record of the archive client: the server's XML status document, texts of the status
 * codes, command names. */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tobasInternal.h"

void tobasInitStatus(tobasSTATUS* status) { memset(status, 0, sizeof *status); }

void tobasFreeStatus(tobasSTATUS* status) {
  if (status->replyData[0] != NULL) {
    free(status->replyData[0]);
    status->replyData[0] = NULL;
  }
}

int tobasGetXmlAttr(const char* xmlDoc, const char* pt, const char* attr, int maxValLen, char* value) {
  char key[tobasMED_BUF_SIZE + 2];
  if (xmlDoc == NULL || maxValLen <= 0 || snprintf(key, sizeof key, "<%s", pt) >= (int)sizeof key)
    return tobasERR_INV_REPLY;
  const char* p = strstr(xmlDoc, key);
  if (p == NULL) return tobasERR_INV_REPLY;
  p += strlen(key);
  if (snprintf(key, sizeof key, "%s=", attr) >= (int)sizeof key) return tobasERR_INV_REPLY;
  p = strstr(p, key);
  if (p == NULL) return tobasERR_INV_REPLY;
  p = strchr(p + strlen(key), '"');
  if (p == NULL) return tobasERR_INV_REPLY;
  ++p;
  const char* end = strchr(p, '"');
  if (end == NULL || end - p >= maxValLen) return tobasERR_INV_REPLY;
  memcpy(value, p, (size_t)(end - p));
  value[end - p] = '\0';
  return tobasSTAT_SUCCESS;
}

int tobasUnpackStatus(char* xmlDoc, tobasSTATUS* status) {
  TOBAS_ENTER("tobasUnpackStatus");
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
  TOBAS_LEAVE("tobasUnpackStatus", stat);
  return stat;
}

int tobasHandleStatus(int retCode, tobasHTTP_DATA* repDataRef, tobasSTATUS* status) {
  TOBAS_ENTER("tobasHandleStatus");
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
    _tobasAppendf(status->message, sizeof status->message, ". Timeout: %.3fs", _getTimeOut());
  TOBAS_LEAVE("tobasHandleStatus", 0);
  return tobasSTAT_SUCCESS;
}

int tobasStat2Str(int statusCode, char* buf) {
  const char* text = NULL;
  switch (statusCode) {
    case tobasSTAT_SUCCESS:
      text = "Status OK";
      break;
    case tobasERR_HOST:
      text = "No such host";
      break;
    case tobasERR_SOCK:
      text = "Cannot create socket";
      break;
    case tobasERR_CON:
      text = "Cannot connect to host/server";
      break;
    case tobasERR_COM:
      text = "Problem communicating with server";
      break;
    case tobasERR_TIMEOUT:
      text = "Timeout encountered while communicating with server";
      break;
    case tobasERR_WR_HD:
      text = "Write error on socket while writing header";
      break;
    case tobasERR_WR_DATA:
      text = "Write error on socket while writing data";
      break;
    case tobasERR_RD_DATA:
      text = "Read error while reading data";
      break;
    case tobasERR_INV_REPLY:
      text = "Invalid reply from data server";
      break;
    case tobasERR_FILE:
      text = "Invalid filename specified";
      break;
    case tobasERR_ALLOC_MEM:
      text = "Cannot allocate memory";
      break;
    case tobasERR_UNKNOWN_STAT:
      text = "Unknown status code";
      break;
    case tobasERR_UNKNOWN_CMD:
      text = "Unknown command issued";
      break;
    case tobasERR_INV_TARG_FILE:
      text = "Invalid target filename specified";
      break;
    case tobasERR_INV_PARS:
      text = "Illegal parameters given";
      break;
    case tobasERR_OPEN_LOG_FILE:
      text = "Could not open specified log file";
      break;
    case tobasSRV_OK:
      text = "Request sucessfully handled by server";
      break;
    case tobasSRV_INV_QUERY:
      text = "Invalid query";
      break;
    default:
      return tobasERR_UNKNOWN_STAT;
  }
  strcpy(buf, text);
  return tobasSTAT_SUCCESS;
}

int tobasSuccess(const tobasSTATUS* status) { return strcmp(status->status, "SUCCESS") == 0 ? 1 : 0; }

int tobasLogCodeInStatus(const tobasSTATUS* status, const char* errId) {
  char key[tobasMED_BUF_SIZE + 2];
  if (snprintf(key, sizeof key, "%s:", errId) >= (int)sizeof key) return 0;
  return strstr(status->message, key) != NULL ? 1 : 0;
}

void tobasDumpStatStdout(const tobasSTATUS* status) {
  if (status->date[0]) printf("\nDate:           %s", status->date);
  printf("\nError Code:     %d", (int)status->errorCode);
  if (status->hostId[0]) printf("\nHost ID:        %s", status->hostId);
  if (status->message[0]) printf("\nMessage:        %s", status->message);
  if (status->status[0]) printf("\nStatus:         %s", status->status);
  if (status->state[0]) printf("\nState:          %s", status->state);
  if (status->subState[0]) printf("\nSub-State:      %s", status->subState);
  if (status->version[0]) printf("\nTOB/AS Version: %s", status->version);
  puts("\n");
}

static const char* const _cmdNames[] = {
    "ARCHIVE",  "CHECKFILE", "CLONE",   "DISCARD", "EXIT",     "INIT",   "LABEL",     "ONLINE",     "OFFLINE",
    "REGISTER", "REMDISK",   "REMFILE", "RESTORE", "RETRIEVE", "STATUS", "SUBSCRIBE", "UNSUBSCRIBE"};
#define TOBAS_CMD_COUNT ((int)(sizeof _cmdNames / sizeof _cmdNames[0]))

int tobasCmd2No(const char* cmdStr, int* code) {
  for (int i = 0; cmdStr != NULL && i < TOBAS_CMD_COUNT; ++i) {
    if (strcmp(cmdStr, _cmdNames[i]) == 0) {
      *code = i;
      return tobasSTAT_SUCCESS;
    }
  }
  return tobasERR_UNKNOWN_CMD;
}

int tobasCmd2Str(int code, char* buf) {
  if (code < 0 || code >= TOBAS_CMD_COUNT) return tobasERR_UNKNOWN_CMD;
  strcpy(buf, _cmdNames[code]);
  return tobasSTAT_SUCCESS;
}
