#ifndef DATAACCESS_DATAACCESS_H
#define DATAACCESS_DATAACCESS_H

// Umbrella header of libDataAccess: the database connection layer, the
// catalogue DAOs, the observation-condition services, the request-file
// interface and the Condor batch submission, with the connection library and
// password sealing they use.

#include <dataAccess/catalogue/KestFile.h>
#include <dataAccess/catalogue/KestFileDAOSyb.h>
#include <dataAccess/catalogue/KestFilesSafeDAOSyb.h>
#include <dataAccess/catalogue/ReplicationRequest.h>
#include <dataAccess/catalogue/ReplicationRequestDAOSyb.h>
#include <dataAccess/common/ArcSysEx.h>
#include <dataAccess/common/Version.h>
#include <dataAccess/conditions/ARSystemService.h>
#include <dataAccess/conditions/AmbientService.h>
#include <dataAccess/conditions/ConstraintSet.h>
#include <dataAccess/conditions/ConstraintSetDAOSyb.h>
#include <dataAccess/conditions/ObRep2Service.h>
#include <dataAccess/conditions/Seeing.h>
#include <dataAccess/conditions/SeeingDAOSyb.h>
#include <dataAccess/conditions/TORV2NightObs.h>
#include <dataAccess/conditions/TORV2NightObsDAOSyb.h>
#include <dataAccess/condor/CondorDag.h>
#include <dataAccess/condor/CondorJob.h>
#include <dataAccess/condor/CondorSubmit.h>
#include <dataAccess/db/ConnectionPool.h>
#include <dataAccess/db/ServiceConnectionStub.h>
#include <dataAccess/db/ServiceConnectionSyb.h>
#include <dataAccess/velmora/Velmora.h>
#include <dataAccess/velmora/VelmoraArchReqsMap.h>
#include <dataAccess/velmora/VelmoraArchiveRequest.h>
#include <dataAccess/velmora/VelmoraFileRequest.h>
#include <stcrypt/stcrypt.h>
#include <sybconn/ArcSysUtils.h>
#include <sybconn/FreeTdsSettings.h>
#include <sybconn/SqliteSettings.h>
#include <sybconn/SybUtils.h>
#include <sybconn/SybaseConnection.h>
#include <sybconn/SybaseResultSet.h>
#include <sybconn/SybaseStatus.h>

#endif
