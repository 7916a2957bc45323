'''systemd's manager for the service control tests: python-dbusmock's systemd template with the
calls that it lacks.

Parameters: unit_dir, the folder whose "<name>.service" files are the installed units: LoadUnit
and Reload add the units of new files and drop those whose file is gone. Units added with
AddMockUnit stay. A unit's state is what StartUnit and StopUnit make of it, or what
SetUnitState sets.

Test controls on org.freedesktop.DBus.Mock: SetUnitState(unit, active_state) sets a unit's
ActiveState; SetStartState(unit, active_state) names the state that StartUnit leaves the unit
in ("active" by default); SetTimeouts(unit, start_usec, stop_usec); RefuseCall(method) makes a
manager method fail with org.freedesktop.DBus.Error.AccessDenied, RefuseCall("StartUnit:<unit>")
only for that unit; Enabled() lists the enabled unit files.
'''

import os

import dbus

from dbusmock import MOCK_IFACE, mockobject
from dbusmock.templates.systemd import (BUS_NAME, MAIN_IFACE, MAIN_OBJ, PATH_PREFIX,  # noqa: F401
                                        SYSTEM_BUS, UNIT_IFACE, StartTransientUnit,
                                        escape_unit_name)
from dbusmock.templates import systemd as base

SERVICE_IFACE = BUS_NAME + '.Service'
NO_SUCH_UNIT = BUS_NAME + '.NoSuchUnit'
ACCESS_DENIED = 'org.freedesktop.DBus.Error.AccessDenied'


def load(mock, parameters):
    base.load(mock, parameters)
    mock.unit_dir = str(parameters.get('unit_dir', ''))
    mock.refused = set()
    mock.enabled = set()
    mock.start_state = {}
    mock.file_units = set()
    scan(mock)


def refuse_if_asked(mock, method, unit=None):
    if method in mock.refused or f'{method}:{unit}' in mock.refused:
        raise dbus.exceptions.DBusException(f'{method} refused', name=ACCESS_DENIED)


def add_unit(mock, name, description=''):
    path = f'{PATH_PREFIX}/unit/{escape_unit_name(name)}'
    mock.units[name] = path
    mock.AddObject(path, UNIT_IFACE, {
        'Id': name,
        'Names': [name],
        'Description': description or name,
        'LoadState': 'loaded',
        'ActiveState': 'inactive',
        'SubState': 'dead',
    }, [])
    mockobject.objects[path].AddProperties(SERVICE_IFACE, {
        'TimeoutStartUSec': dbus.UInt64(90000000),
        'TimeoutStopUSec': dbus.UInt64(90000000),
    })


def description_of(path):
    with open(path, encoding='utf-8') as unit_file:
        for line in unit_file:
            if line.startswith('Description='):
                return line[len('Description='):].strip()
    return ''


def scan(mock):
    '''Adds the units of unit_dir that are new, and drops the file units that are gone.'''
    if not mock.unit_dir or not os.path.isdir(mock.unit_dir):
        return
    present = {f for f in os.listdir(mock.unit_dir) if f.endswith('.service')}
    for name in present - mock.file_units:
        if name not in mock.units:
            add_unit(mock, name, description_of(os.path.join(mock.unit_dir, name)))
            mock.file_units.add(name)
    for name in mock.file_units - present:
        mock.RemoveObject(mock.units.pop(name))
        mock.file_units.discard(name)


def unit_object(mock, name):
    name = str(name)
    if name not in mock.units:
        raise dbus.exceptions.DBusException(f'Unit {name} not loaded.', name=NO_SUCH_UNIT)
    return mockobject.objects[mock.units[name]]


def set_state(unit, active):
    sub = {'active': 'running', 'activating': 'start', 'deactivating': 'stop'}.get(active, 'dead')
    unit.UpdateProperties(UNIT_IFACE, {'ActiveState': active, 'SubState': sub})


@dbus.service.method(MAIN_IFACE, in_signature='ss', out_signature='o')
def StartUnit(self, name, mode):
    refuse_if_asked(self, 'StartUnit', name)
    unit = unit_object(self, name)
    job = base.StartUnit(self, name, mode)
    set_state(unit, self.start_state.get(str(name), 'active'))
    return job


@dbus.service.method(MAIN_IFACE, in_signature='ss', out_signature='o')
def StopUnit(self, name, mode):
    refuse_if_asked(self, 'StopUnit', name)
    unit = unit_object(self, name)
    job = base.StopUnit(self, name, mode)
    set_state(unit, 'inactive')
    return job


@dbus.service.method(MAIN_IFACE, in_signature='s', out_signature='o')
def GetUnit(self, name):
    refuse_if_asked(self, 'GetUnit')
    unit_object(self, name)
    return self.units[str(name)]


@dbus.service.method(MAIN_IFACE, in_signature='s', out_signature='o')
def LoadUnit(self, name):
    refuse_if_asked(self, 'LoadUnit')
    scan(self)
    unit_object(self, name)
    return self.units[str(name)]


@dbus.service.method(MAIN_IFACE, in_signature='', out_signature='a(ssssssouso)')
def ListUnits(self):
    refuse_if_asked(self, 'ListUnits')
    result = []
    for name, path in sorted(self.units.items()):
        props = mockobject.objects[path].props[UNIT_IFACE]
        result.append((name, props.get('Description', name), props['LoadState'],
                       props['ActiveState'], props.get('SubState', ''), '', dbus.ObjectPath(path),
                       dbus.UInt32(0), '', dbus.ObjectPath('/')))
    return dbus.Array(result, signature='(ssssssouso)')


@dbus.service.method(MAIN_IFACE, in_signature='', out_signature='')
def Reload(self):
    refuse_if_asked(self, 'Reload')
    scan(self)


@dbus.service.method(MAIN_IFACE, in_signature='asbb', out_signature='ba(sss)')
def EnableUnitFiles(self, files, _runtime, _force):
    refuse_if_asked(self, 'EnableUnitFiles')
    changes = []
    for name in files:
        self.enabled.add(str(name))
        changes.append(('symlink', f'/etc/systemd/system/multi-user.target.wants/{name}', name))
    return (True, dbus.Array(changes, signature='(sss)'))


@dbus.service.method(MAIN_IFACE, in_signature='asb', out_signature='a(sss)')
def DisableUnitFiles(self, files, _runtime):
    refuse_if_asked(self, 'DisableUnitFiles')
    changes = []
    for name in files:
        if str(name) in self.enabled:
            self.enabled.discard(str(name))
            changes.append(('unlink', f'/etc/systemd/system/multi-user.target.wants/{name}', ''))
    return dbus.Array(changes, signature='(sss)')


@dbus.service.method(MOCK_IFACE, in_signature='s')
def AddMockUnit(self, name):
    add_unit(self, str(name))


@dbus.service.method(MOCK_IFACE, in_signature='ss', out_signature='')
def SetUnitState(self, name, active):
    set_state(unit_object(self, name), str(active))


@dbus.service.method(MOCK_IFACE, in_signature='ss', out_signature='')
def SetStartState(self, name, active):
    self.start_state[str(name)] = str(active)


@dbus.service.method(MOCK_IFACE, in_signature='stt', out_signature='')
def SetTimeouts(self, name, start_usec, stop_usec):
    unit_object(self, name).UpdateProperties(SERVICE_IFACE, {
        'TimeoutStartUSec': dbus.UInt64(start_usec),
        'TimeoutStopUSec': dbus.UInt64(stop_usec),
    })


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='')
def RefuseCall(self, method):
    self.refused.add(str(method))


@dbus.service.method(MOCK_IFACE, in_signature='', out_signature='as')
def Enabled(self):
    return dbus.Array(sorted(self.enabled), signature='s')
